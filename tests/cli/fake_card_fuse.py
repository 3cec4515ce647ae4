#!/usr/bin/python3
# A counterfeit card for the capacity check: one file "card" that claims
# CLAIMED bytes but keeps only the BACKING file's bytes; the address bits
# above them are ignored, so writes past the end land on the start.
# Usage: fake_card_fuse.py MOUNTPOINT BACKING CLAIMED (stays in the foreground)
import errno, os, stat, sys
from fusepy import FUSE, FuseOSError, Operations


class FakeCard(Operations):
    def __init__(self, backing, claimed):
        self.fd = os.open(backing, os.O_RDWR)
        self.real = os.fstat(self.fd).st_size
        self.claimed = claimed

    def getattr(self, path, fh=None):
        if path == "/":
            return {"st_mode": stat.S_IFDIR | 0o755, "st_nlink": 2}
        if path != "/card":
            raise FuseOSError(errno.ENOENT)
        return {"st_mode": stat.S_IFREG | 0o600, "st_nlink": 1, "st_size": self.claimed}

    def readdir(self, path, fh):
        return [".", "..", "card"]

    def open(self, path, flags):
        return 0

    def read(self, path, size, offset, fh):
        size = max(0, min(size, self.claimed - offset))
        return b"".join(os.pread(self.fd, min(4096, size - done),
                                 (offset + done) % self.real) for done in range(0, size, 4096))

    def write(self, path, data, offset, fh):
        for done in range(0, len(data), 4096):
            os.pwrite(self.fd, data[done:done + 4096], (offset + done) % self.real)
        return len(data)

    def truncate(self, path, length, fh=None):
        pass


if __name__ == "__main__":
    FUSE(FakeCard(sys.argv[2], int(sys.argv[3])), sys.argv[1], foreground=True, direct_io=True)
