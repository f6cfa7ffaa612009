#!/usr/bin/python3
"""recording_disk.py MOUNT_POINT DIRECTORY LOG: serves the images in DIRECTORY, and logs what happens to them.

A loop device on such an image is a disk to a file system; it passes each flush on as an fsync. The log has
for each write and flush, in the order in which they happen, a HEADER and the bytes that were written.
"""
import os
import struct
import sys

import fusepy

from crash_states import Event

HEADER = struct.Struct("<8sQQ")  # the image, the offset, the length
FLUSH = 2**64 - 1  # stands for the length
SECTOR = 4096  # of all file systems here


def read_log(path, begin, end):
    """The events between two lengths of the log. A disk holds sectors, by their image and offset."""
    events = []
    with open(path, "rb") as log:
        log.seek(begin)
        while log.tell() < end:
            name, offset, length = HEADER.unpack(log.read(HEADER.size))
            disk = name.rstrip(b"\0").decode()
            if length == FLUSH:
                events.append(Event(disk, None))
                continue
            data = log.read(length)
            if offset % SECTOR or len(data) % SECTOR:
                raise ValueError(f"{len(data)} bytes were written at {offset}")
            sectors = {(disk, offset + at): data[at:at + SECTOR] for at in range(0, len(data), SECTOR)}
            events.append(Event(disk, sectors, is_atomic=False))
    return events


class RecordingDisk(fusepy.Operations):
    def __init__(self, directory, log):
        self.directory = directory
        self.log = os.open(log, os.O_WRONLY | os.O_CREAT | os.O_APPEND)

    def record(self, path, offset, length, data=b""):
        os.write(self.log, HEADER.pack(path[1:].encode(), offset, length) + data)

    def getattr(self, path, fh=None):
        status = os.stat(self.directory + path)
        return {"st_mode": status.st_mode, "st_size": status.st_size, "st_nlink": 1}

    def open(self, path, flags):
        return os.open(self.directory + path, os.O_RDWR)

    def read(self, path, size, offset, fh):
        return os.pread(fh, size, offset)

    def write(self, path, data, offset, fh):
        self.record(path, offset, len(data), data)
        return os.pwrite(fh, data, offset)

    def fsync(self, path, datasync, fh):
        self.record(path, 0, FLUSH)
        return 0

    def release(self, path, fh):
        os.close(fh)


if __name__ == "__main__":
    mount_point, directory, log = sys.argv[1:]
    fusepy.FUSE(RecordingDisk(directory, log), mount_point, foreground=True, nothreads=True, direct_io=True)
