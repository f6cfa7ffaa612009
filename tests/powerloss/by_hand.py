"""The three passes by hand, with and without sync: what a power cut leaves of old files and new ones."""
from pathlib import Path
from random import Random

import release
from crash_states import crash_states

MOST_SHOWN = 5
WITH_SYNC = ["-rename", "sync", "-copy", "only-modes", "sync", "-clean"]
WITHOUT_FIRST_SYNC = ["-rename", "-copy", "only-modes", "sync", "-clean"]
WITHOUT_LAST_SYNC = ["-rename", "sync", "-copy", "only-modes", "-clean"]


def check(name, record, most, seed):
    """record(steps) returns a recording. Returns in how many states a file is lost, for each of the three."""
    losses = []
    for steps in (WITH_SYNC, WITHOUT_FIRST_SYNC, WITHOUT_LAST_SYNC):
        judge = ByHandJudge(record(steps))
        states = list(crash_states(judge.recording, seed))
        states = Random(seed).sample(states, min(most, len(states)))
        lost = list(filter(None, map(judge.loss, states)))
        if steps == WITH_SYNC:
            lost += filter(None, map(judge.trouble_of_second_try, states))
            for files in lost[:MOST_SHOWN]:
                print(name, *files, sep="\n  ")
        print(f"{name}, {' '.join(steps)}: {len(states)} states after power cuts, "
              f"{len(lost)} with a lost file", flush=True)
        losses.append(len(lost))
    return losses


class ByHandJudge:
    def __init__(self, recording):
        self.recording, self.host = recording, recording.host

    def loss(self, state):
        """The files that are lost, in texts."""
        with self.recording.after_power_cut(state):
            is_cleaning = state.steps_ended >= self.recording.commands.index("-clean")
            return self.lost_new_files() if is_cleaning else self.lost_old_files()

    def trouble_of_second_try(self, state):
        """The pass behind the last sync, and all later ones, have to end in all new content."""
        with self.recording.after_power_cut(state):
            steps, ended = self.recording.commands, state.steps_ended
            last_sync = max((number for number in range(ended) if steps[number] == "sync"), default=-1)
            for step in steps[last_sync + 1:]:
                if status := self.host.perform(step):
                    return [f"{step} ends with {status} when it is repeated"]
            backups = [f"{path} is left" for path in self.host.targets.rglob("*.bak")]
            return backups or self.lost_new_files()

    def lost_old_files(self):
        """Until -clean begins each old file is under NAME or NAME.bak."""
        old = {name: content for name, (content, *_) in release.OLD.items() if name in release.NEW}
        return [f"{name}: the old file is lost" for name, content in old.items()
                if content not in (self.content_of(name), self.content_of(name + ".bak"))]

    def lost_new_files(self):
        return [f"{name}: not the new file" for name, (content, _) in release.NEW.items()
                if self.content_of(name) != content]

    def content_of(self, name):
        path = Path(self.host.targets, name)
        return path.read_bytes() if path.exists() else None
