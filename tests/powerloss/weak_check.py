#!/usr/bin/python3
"""weak_check.py PROGRAMS SCRATCH: upgrades on the weakest disk that POSIX allows, and with one sync less.

Every sync of vfilelist has to be needed there, except those with a reason; so have the syncs of the passes by
hand. Needs a mount namespace of its own (check.sh).
"""
import argparse
import copy
import os
import sys
from pathlib import Path

import by_hand
from crash_states import CrashState, crash_states
from host import Host
from judge import Judge
from weak_disk import WeakRecording

MOST_SHOWN = 5
FEWEST_STATES = 1500
NOT_NEEDED = {  # command and file: the reason
    ("upgrade", "rescue/disk_calls.so"): "the test's own",
    ("upgrade", "rescue/ld-linux-x86-64.so.2"): "a program names its loader by the whole path",
    ("resume-renaming", "."): "resume goes back without it, too; rollback, of the same code, does not",
    ("resume-copying", "."): "the same",
}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("programs", type=Path)
    parser.add_argument("scratch", type=Path)
    parser.add_argument("--seed", type=int, default=1, help="chooses among the states")
    parser.add_argument("--most", type=int, default=300, help="so many without one of the syncs")
    options = parser.parse_args()
    judges = record_commands(mounted_host("commands", options))
    results = [check_states(judges, options), check_syncs(judges, options), check_by_hand(options)]
    return not all(results)


def mounted_host(name, options):
    host = Host("ext4", options.programs, options.scratch / name, ["disk"])
    host.mount(host.images)
    return host


def record_commands(host):
    upgrade = WeakRecording(host, "upgrade", ["upgrade"]).run()
    commit = WeakRecording(host, "commit", ["commit"]).run()
    commit.bring_about(CrashState({}, 0))
    rollback = WeakRecording(host, "rollback", ["rollback"]).run()
    judges = [Judge(upgrade, host.old), Judge(commit, host.new), Judge(rollback, host.old)]
    for judge in judges[:2]:
        for phase, state in judge.interrupted_states().items():
            judge.recording.bring_about(state)
            judges.append(Judge(WeakRecording(host, "resume-" + phase, ["resume"]).run(), judge.goal))
    return judges


def check_states(judges, options):
    troubles = [trouble for judge in judges for trouble in judge.judge(sys.maxsize, options.seed)]
    third_states = list(filter(None, troubles))
    for trouble in third_states[:MOST_SHOWN]:
        print("weak disk", trouble)
    print(f"weak disk: {len(troubles)} states after power cuts in {len(judges)} commands, "
          f"{len(third_states)} neither old nor new (seed {options.seed})", flush=True)
    if len(troubles) < FEWEST_STATES:
        print(f"FAILED: fewer than {FEWEST_STATES} states")
    return not third_states and len(troubles) >= FEWEST_STATES


def check_syncs(judges, options):
    needed, not_needed = [], []
    for judge in judges:
        for path, recording in without_each_sync(judge.recording):
            known = {state.key() for state in crash_states(judge.recording, options.seed)}
            is_needed = any(Judge(recording, judge.goal).judge(options.most, options.seed, known))
            (needed if is_needed else not_needed).append((recording.name, path))
    for name, path in set(not_needed) - NOT_NEEDED.keys():
        print(f"FAILED: {name} does not need the sync of {path}")
    for name, path in NOT_NEEDED.keys() - set(not_needed):
        print(f"FAILED: {name} needs the sync of {path}")
    print(f"weak disk: {len(needed)} syncs without which a power cut leaves neither old nor new, "
          f"{len(not_needed)} others", flush=True)
    return set(not_needed) == NOT_NEEDED.keys()


def without_each_sync(recording):
    """The path of what is synced, and the recording without this sync. Where nothing has changed since the
    last one there is nothing to leave out."""
    flushes = [number for number, event in enumerate(recording.events) if event.changes is None]
    changed = set()
    for number, event in enumerate(recording.events):
        if event.changes is not None:
            changed.add(event.disk)
        elif event.disk in changed:
            changed.remove(event.disk)
            without = copy.copy(recording)
            without.events = recording.events[:number] + recording.events[number + 1:]
            without.steps = [recording.steps[0] - 1]
            path = recording.synced[flushes.index(number)]
            yield os.path.relpath(path, recording.host.state), without


def check_by_hand(options):
    host = mounted_host("by-hand", options)
    old = WeakRecording(host, "old", [])

    def record(steps):
        old.bring_about(CrashState({}, 0))
        return WeakRecording(host, "by hand", steps).run()

    with_sync, *without_sync = by_hand.check("weak disk", record, options.most, options.seed)
    return with_sync == 0 and all(without_sync)


if __name__ == "__main__":
    sys.exit(main())
