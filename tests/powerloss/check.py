#!/usr/bin/python3
"""check.py FILE_SYSTEM PROGRAMS SCRATCH: what power cuts leave of upgrades on this file system.

upgrade, commit, rollback and resume run on disks that are recorded. Then the states in which a power cut may
have left these disks are mounted, resume runs in each as the boot unit runs it, and the tree is compared.
Needs a mount namespace of its own (check.sh).
"""
import argparse
import shutil
import sys
from pathlib import Path

import by_hand
from host import Host
from judge import Judge

MOST_ROUNDS = 20
MOST_SHOWN = 5


def main():
    options = parse_options()
    counts = Counts(options)
    for number in range(MOST_ROUNDS):
        if number >= 2 and counts.states >= options.states:
            break
        for disks in (["disk"], ["disk", "other"]):
            scratch = options.scratch / f"{number}-{len(disks)}"
            host = Host(options.file_system, options.programs, scratch, disks)
            check_host(host, write_back(options.programs, host, number), counts)
            shutil.rmtree(host.scratch)
    is_fine = counts.show()
    return not (check_by_hand(options) and is_fine)


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("file_system")
    parser.add_argument("programs", type=Path)
    parser.add_argument("scratch", type=Path)
    parser.add_argument("--seed", type=int, default=1, help="chooses among the states")
    parser.add_argument("--states", type=int, default=500, help="so many in all; fewer are a failure")
    parser.add_argument("--most", type=int, default=30, help="so many after each command")
    return parser.parse_args()


def write_back(programs, host, number):
    """In the first round the kernel keeps all that it may keep until a sync, in the second nothing."""
    if number == 0:
        return {}
    disks = ":".join(str(host.scratch / disk) for disk in host.disks)
    return {"LD_PRELOAD": str(programs / "disk_calls.so"), "WRITE_BACK": str(number - 1), "DISKS": disks}


def check_host(host, environment, counts):
    upgrade = host.record("upgrade", host.images, ["upgrade"], environment)
    commit = host.record("commit", upgrade.images_after, ["commit"], environment)
    rollback = host.record("rollback", upgrade.images_after, ["rollback"], environment)
    upgrading, committing = Judge(upgrade, host.old), Judge(commit, host.new)
    for judge in (upgrading, committing, Judge(rollback, host.old)):
        counts.add(judge)
    for judge in (upgrading, committing):
        for phase, state in judge.interrupted_states().items():
            images = judge.recording.images_of(state)
            resume = host.record("resume-" + phase, images, ["resume"], environment)
            counts.add(Judge(resume, judge.goal))


def check_by_hand(options):
    host = Host(options.file_system, options.programs, options.scratch / "by-hand", ["disk"])

    def record(steps):
        return host.record("by-hand", host.images, steps)

    with_sync, _, without_last_sync = by_hand.check(options.file_system, record, options.most, options.seed)
    return with_sync == 0 and without_last_sync > 0


class Counts:
    def __init__(self, options):
        self.options = options
        self.commands = self.states = self.third_states = 0

    def add(self, judge):
        self.commands += 1
        for trouble in judge.judge(self.options.most, self.options.seed):
            self.states += 1
            if trouble:
                self.third_states += 1
                if self.third_states <= MOST_SHOWN:
                    print(self.options.file_system, trouble, flush=True)

    def show(self):
        options = self.options
        print(f"{options.file_system}: {self.states} states after power cuts in {self.commands} commands, "
              f"{self.third_states} neither old nor new (seed {options.seed})")
        if self.states < options.states:
            print(f"FAILED: fewer than {options.states} states")
        return self.third_states == 0 and self.states >= options.states


if __name__ == "__main__":
    sys.exit(main())
