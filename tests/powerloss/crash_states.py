"""The states in which a power cut may leave disks whose changes were recorded.

What is changed on a disk before it is flushed is there afterwards; of the changes since then any part may be, and
of the last one its beginning.
What a disk is, and what it holds, is the recorder's business. A recording has
    events         what happened
    steps          for each step that was recorded, the number of events until it ended
    before(key)    the value before the first event
"""
from random import Random
from typing import NamedTuple, Optional

ALL_SUBSETS = 6  # of so many changes every subset is taken
SUBSETS = 64  # of more changes


class Event(NamedTuple):
    disk: object
    changes: Optional[dict]  # the new values of what the disk holds; None: a flush
    is_atomic: bool = True  # they come all at once; otherwise in this order


class CrashState(NamedTuple):
    content: dict  # what differs from what was there before the first event
    steps_ended: int  # before the power cut

    def key(self):
        """Tells it from the others, without keeping its content in memory."""
        return hash((frozenset(self.content.items()), self.steps_ended))


def crash_states(recording, seed):
    """Each state once: those after each event and in the middle of it, and those without what was not flushed, in
    various ways."""
    seen = set()
    for cut, content in _all_states(recording, Random(seed)):
        state = _state(recording, cut, content)
        if state.key() not in seen:
            seen.add(state.key())
            yield state


def state_after(recording, cut):
    """When nothing of the first `cut` events is lost."""
    return _state(recording, cut, _with(recording.events[:cut], {}, recording.before))


def _state(recording, cut, content):
    return CrashState(content, sum(end <= cut for end in recording.steps))


def _all_states(recording, random):
    """The number of events before the power cut, and what it leaves."""
    flushed, pending = {}, []
    yield 0, {}
    for cut, event in enumerate(recording.events):
        if event.changes is not None:
            if not event.is_atomic and len(event.changes) > 1:
                yield cut, _with([*pending, _beginning_of(event, random)], flushed, recording.before)
            pending.append(event)
            yield cut + 1, _with(pending, flushed, recording.before)
            continue
        for kept in _choices(pending, random):
            yield cut, _with(kept, flushed, recording.before)
        reached = [change for change in pending if change.disk == event.disk]
        flushed = _with(reached, flushed, recording.before)
        pending = [change for change in pending if change.disk != event.disk]
    for kept in _choices(pending, random):
        yield len(recording.events), _with(kept, flushed, recording.before)


def _choices(pending, random):
    if len(pending) <= ALL_SUBSETS:
        for bits in range(2 ** len(pending)):
            yield [change for number, change in enumerate(pending) if bits >> number & 1]
    else:
        for density in [random.random() for _ in range(SUBSETS)]:
            yield [change for change in pending if random.random() < density]


def _beginning_of(event, random):
    length = random.randrange(1, len(event.changes))
    return event._replace(changes=dict(list(event.changes.items())[:length]))


def _with(events, content, before):
    content = dict(content)
    for event in events:
        for key, value in (event.changes or {}).items():
            if before(key) == value:
                content.pop(key, None)
            else:
                content[key] = value
    return content
