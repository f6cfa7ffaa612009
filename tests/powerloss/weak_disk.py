"""The weakest disk that POSIX allows: only what was synced itself is there after a power cut.

What a file holds is a disk of its own, and so are the names in a directory: fsync flushes one of these. A
rename within a directory happens as a whole or not at all. Of a file that is not synced a half may be zero.
"""
import os
import shutil
import threading
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path

from crash_states import Event
from host import Host, expect_success


@dataclass
class WeakRecording:
    """A command that runs on the mounted disk of a host, and what it did to files and directories."""
    host: Host
    name: str
    commands: list
    events: list = field(default_factory=list)
    steps: list = field(default_factory=list)
    synced: list = field(default_factory=list)  # the paths, in the order of the flushes among the events

    def __post_init__(self):
        self.root = str(self.host.scratch / self.host.disks[0])
        # Each file under the number of its inode, by which it is known: no number is given to another one.
        self.pool = Path(self.root, "pool")
        self.pool.mkdir(exist_ok=True)
        self.contents = self.look()

    def before(self, key):
        return self.contents.get(key)

    def look(self):
        """The names in each directory; the length, the halves and the attributes of each file."""
        found = {}
        for directory, names, files in os.walk(self.root):
            if directory == self.root:
                names.remove(self.pool.name)
            for name in names:
                found[directory, name] = "directory"
            for name in files:
                path = Path(directory, name)
                inode = found[directory, name] = path.stat().st_ino
                found |= held_by(path, inode)
                if not (self.pool / str(inode)).exists():
                    os.link(path, self.pool / str(inode))
        return found

    def run(self):
        changes, seen = self.host.scratch / "changes", self.host.scratch / "seen"
        for fifo in (changes, seen):
            os.mkfifo(fifo)
        listener = threading.Thread(target=self.listen, args=(changes, seen))
        listener.start()
        preload = str(self.host.programs / "disk_calls.so")
        for command in self.commands:
            status = self.host.perform(command, {"LD_PRELOAD": preload, "CHANGES": changes, "SEEN": seen})
            expect_success(self.name, command, status)
            self.steps.append(len(self.events))
        changes.write_text(END)
        listener.join()
        for fifo in (changes, seen):
            fifo.unlink()
        return self

    def listen(self, changes, seen):
        now = self.contents
        while (synced := changes.read_text()) != END:
            last, now = now, self.look()
            self.events += events_between(last, now)
            if synced := synced.rstrip("\n"):
                self.synced.append(synced)
                self.events += flushes(synced, now)
            seen.write_text(".")

    @contextmanager
    def after_power_cut(self, state):
        self.bring_about(state)
        yield

    def bring_about(self, state):
        content = self.contents | state.content
        # A directory that was there before is the same one.
        kept = self.contents.keys() & {key for key, value in content.items() if value == "directory"}
        for directory, names, files in os.walk(self.root):
            names[:] = [name for name in names if (directory, name) in kept]
            for name in files:
                Path(directory, name).unlink()
            for name in set(os.listdir(directory)) - set(names) - {self.pool.name}:
                shutil.rmtree(Path(directory, name))
        self.make(self.root, content)

    def make(self, directory, content):
        for (parent, name), value in content.items():
            path = Path(directory, name)
            if parent != directory or value is None:
                continue
            if value == "directory":
                path.mkdir(mode=0o750, exist_ok=True)
                self.make(str(path), content)
            else:
                parts = {(value, part): content.get((value, part)) for part in PARTS}
                if (value, LENGTH) in self.contents:
                    os.link(self.pool / str(value), path)
                if not path.exists() or held_by(path, value) != parts:
                    write(path, *parts.values())


END = "end"
PARTS = LENGTH, FIRST_HALF, SECOND_HALF, ATTRIBUTES = "length", "first half", "second half", "attributes"


def held_by(path, inode):
    content, status = path.read_bytes(), path.stat()
    half = len(content) // 2
    attributes = tuple((name, os.getxattr(path, name)) for name in os.listxattr(path))
    parts = len(content), content[:half], content[half:], \
        (status.st_mode, status.st_uid, status.st_gid, attributes)
    return {(inode, part): value for part, value in zip(PARTS, parts)}


def write(path, length, first_half, second_half, attributes):
    content = bytearray(length or 0)
    if length and first_half:
        content[:length // 2] = first_half
    if length and second_half:
        content[length // 2:] = second_half
    path.write_bytes(content)
    if attributes:
        mode, user, group, extended = attributes
        os.chown(path, user, group)
        os.chmod(path, mode)
        for name, value in extended:
            os.setxattr(path, name, value)


def flushes(synced, now):
    if synced == "all":
        return [Event(disk, None) for disk in dict.fromkeys(disk for disk, _ in now)]
    return [Event(synced if os.path.isdir(synced) else now[os.path.split(synced)], None)]


def events_between(last, now):
    """Names that one directory loses and gains go together; each part of a file goes alone."""
    events = {}
    for key in sorted(last.keys() | now.keys(), key=str):
        disk, part = key
        is_file_part = isinstance(disk, int)
        if (last.get(key) or None) != (now.get(key) or None) and (key in now or not is_file_part):
            events.setdefault((disk, part if is_file_part else None), {})[key] = now.get(key)
    return [Event(disk, changes) for (disk, _), changes in events.items()]
