"""What is wrong after a power cut: one `resume` later the tree has to be the old one or the new one."""
import subprocess
from bisect import bisect_left
from random import Random

import release
from crash_states import crash_states, state_after

PHASES = {
    "upgrade": ("none", "renaming", "copying", "installed"),
    "commit": ("installed", "cleaning", "none"),
}


class Judge:
    def __init__(self, recording, goal):
        """`goal`: the tree to which the command leads, if need be when it runs again."""
        self.recording, self.host, self.goal = recording, recording.host, goal
        [self.command] = recording.commands

    def judge(self, most, seed, known=frozenset()):
        """Yields for each state what is wrong with it: a text, which is empty when all is well. Chooses so
        many of the states at most, and none that is known."""
        def states():
            return (state for state in crash_states(self.recording, seed) if state.key() not in known)

        total = sum(1 for _ in states())
        chosen = set(Random(seed).sample(range(total), min(most, total)))
        for number, state in enumerate(states()):
            if number in chosen:
                trouble = self.trouble(state)
                name = f"{self.recording.name}, state {number} of {total}:"
                yield "\n  ".join([name, *trouble]) if trouble else ""

    def interrupted_states(self):
        """For the phases that `resume` ends: the state in which it has most to do."""
        phases = PHASES[self.command]

        def position(cut):
            with self.recording.after_power_cut(state_after(self.recording, cut)):
                return phases.index(self.host.phase())

        def begin(phase):
            return bisect_left(range(len(self.recording.events)), phases.index(phase), key=position)

        if self.command == "upgrade":
            cuts = {"renaming": begin("copying") - 1, "copying": begin("installed") - 1}
        else:
            cuts = {"cleaning": begin("cleaning")}
        return {phase: state_after(self.recording, cut) for phase, cut in cuts.items()}

    def trouble(self, state):
        try:
            with self.recording.after_power_cut(state):
                return self.trouble_of_host(state.steps_ended == 1)
        except subprocess.CalledProcessError as error:
            return [f"{error}: {error.stderr}"]

    def trouble_of_host(self, has_ended):
        host, command = self.host, self.command
        status = host.perform("resume") if host.phase() != "none" else 0
        if status != 0:
            return [f"resume ends with {status}"]
        is_open = host.phase() != "none"
        if is_open != (command == "upgrade") and (has_ended or command == "resume"):
            return [f"the state is {host.phase()}"]
        if is_open:
            found = release.differences(host.installed, release.snapshot(host.targets))
            if found or command == "upgrade":
                return found
            host.perform(command)
        found = release.differences(self.goal, release.snapshot(host.targets))
        # What is committed has its receipt.
        if not found and self.goal == host.new and host.perform("verify --installed") != 0:
            return ["the receipt is missing, or another one"]
        return found
