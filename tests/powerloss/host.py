"""A host whose disks are images: mounted as they are, or through a disk that records what is written."""
import mmap
import os
import subprocess
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import release
from recording_disk import SECTOR, read_log

RECORDER = Path(__file__).with_name("recording_disk.py")
NOT_STARTED = 127
FILE_SYSTEMS = {  # size, command, mount options
    "ext4": ("32M", "mkfs.ext4 -q -b 4096 -E lazy_itable_init=0", "loop"),
    "xfs": ("300M", "mkfs.xfs -q -s size=4096", "loop"),
    "btrfs": ("110M", "mkfs.btrfs -q", "loop,nodiscard"),
}


class Host:
    """The targets are on the first of its disks, the state directory on the last."""

    def __init__(self, file_system, programs, scratch, disks):
        self.size, self.make, self.options = FILE_SYSTEMS[file_system]
        self.programs, self.scratch, self.disks = programs, scratch, disks
        self.targets = scratch / disks[0] / "targets"
        self.state = scratch / disks[-1] / "state"
        for name in (*disks, "old", "served", "fuse"):
            (scratch / name).mkdir(parents=True)
        release.write_package(scratch / "package", self.targets)
        self._install()

    def _install(self):
        self.images = self.scratch / "old"
        for disk in self.disks:
            run("truncate", "-s", self.size, self.images / disk)
            run(*self.make.split(), self.images / disk)
        self.mount(self.images)
        release.install_old(self.targets)
        self.old = release.snapshot(self.targets)
        self.new = release.expected_new(self.old)
        self.installed = release.expected_installed(self.old)
        self.unmount()

    def mount(self, images):
        for disk in self.disks:
            run("mount", "-o", self.options, images / disk, self.scratch / disk)

    def unmount(self):
        for disk in self.disks:
            run("umount", self.scratch / disk)

    def sync(self):
        for disk in self.disks:
            run("sync", "-f", self.scratch / disk)

    def phase(self):
        """That of the open upgrade; "none" when none is open."""
        if not (self.state / "state").exists():
            return "none"
        words = (self.state / "state").read_bytes().split()
        return words[2].decode() if len(words) == 5 else "unreadable"

    def perform(self, step, environment=None):
        """Returns its exit status. A step is a command of vfilelist, a pass of the upgrade tool or sync.
        `resume` is what the boot unit runs."""
        programs, file_list = self.programs, self.scratch / "package" / "filelist.ini"
        if step == "sync":
            words = ["sync", "-f", self.targets]
        elif step.startswith("-"):
            words = [programs / "VCopyFileListIni", step, file_list]
        elif step == "only-modes":
            words = [programs / "vfilelist", "rollback", "--only-modes", file_list]
        else:
            programs = self.state / "rescue" if step == "resume" else programs
            words = [programs / "vfilelist", *step.split(), "--state", self.state]
            words += [file_list] if step == "upgrade" else []
        variables = {"LD_LIBRARY_PATH": str(programs), "VLOGGER_DIRECTORY": str(self.scratch / "log")}
        try:
            return subprocess.run(words, env=variables | (environment or {}), capture_output=True).returncode
        except OSError:
            return NOT_STARTED

    def record(self, name, images, steps, environment=None):
        """Performs the steps on these images, and writes back what the kernel still keeps afterwards."""
        log, served, fuse = self.scratch / (name + ".log"), self.scratch / "served", self.scratch / "fuse"
        before, after = self.scratch / (name + ".before"), self.scratch / (name + ".after")
        copy(images, served)
        recorder = subprocess.Popen([RECORDER, fuse, served, log])
        while not os.path.ismount(fuse):
            time.sleep(0.01)
        self.mount(fuse)
        self.sync()
        copy(served, before)
        sizes = [log.stat().st_size]
        for step in steps:
            expect_success(name, step, self.perform(step, environment))
            sizes.append(log.stat().st_size)
        self.sync()
        self.unmount()
        run("umount", "--lazy", fuse)  # a loop device may still be about to close its image
        recorder.wait()
        copy(served, after)
        sizes.append(log.stat().st_size)
        parts = [read_log(log, begin, end) for begin, end in zip(sizes, sizes[1:])]
        log.unlink()
        ends = [sum(len(part) for part in parts[:count]) for count in range(1, len(parts))]
        return Recording(self, name, steps, sum(parts, []), ends, before, after)


@dataclass
class Recording:
    """Steps, and what they did to the sectors of the disks."""
    host: Host
    name: str
    commands: list
    events: list
    steps: list
    images: Path  # the directory of the images before the first event
    images_after: Path  # ... and after the last one

    def __post_init__(self):
        self.contents = {disk: read_only(self.images / disk) for disk in self.host.disks}

    def before(self, key):
        disk, offset = key
        return self.contents[disk][offset:offset + SECTOR]

    def images_of(self, state):
        images = self.host.scratch / (self.name + ".left")
        copy(self.images, images)
        for disk in self.host.disks:
            with open(images / disk, "r+b") as image:
                for (its_disk, offset), data in state.content.items():
                    if its_disk == disk:
                        os.pwrite(image.fileno(), data, offset)
        return images

    @contextmanager
    def after_power_cut(self, state):
        self.host.mount(self.images_of(state))
        try:
            yield
        finally:
            self.host.unmount()


def expect_success(name, step, status):
    if status != 0:
        raise RuntimeError(f"{name}: {step} ends with {status}")


def run(*words):
    subprocess.run([str(word) for word in words], check=True, capture_output=True, text=True)


def copy(images, directory):
    run("rm", "-rf", directory)
    run("cp", "-r", "--sparse=always", images, directory)


def read_only(path):
    with open(path, "rb") as file:
        return mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)
