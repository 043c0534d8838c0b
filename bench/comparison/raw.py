"""The raw wire: what the protocol's plain tool makes of the same bytes, without a file system in between."""
import contextlib
import os
import time

from comparison import content
from comparison.processes import Failure, run

# The cipher that Ombra asks for where the processor has instructions for it.
CIPHER = "aes128-gcm@openssh.com"


class Raw:
    """Has some of the works only; each answers rows as a worker does. It has logged in before the clock runs, as volumes
    are mounted before; curl connects within its time, and says it itself."""

    def __init__(self, site):
        self.site = site
        self.server, self.host = site.server, site.host
        self.over_ssh = self.server.protocol == "sftp"
        self.name = "ssh" if self.over_ssh else "curl"
        self.target = f"{site.folder}/raw"
        self.socket = f"{site.folder}/raw.ssh"

    def works(self):
        return {"read": self.read, "first": self.first, "tail": self.tail, "write": self.write} | (
            {"tree-read": self.tree_read, "mount": self.log_in} if self.over_ssh else {})

    @contextlib.contextmanager
    def logged_in(self):
        if not self.over_ssh:
            yield
            return
        run(self.ssh(["-M", "-S", self.socket, "-f", "-N"]), self.site.timeout)
        try:
            yield
        finally:
            run(self.ssh(["-S", self.socket, "-O", "exit"]), 10)

    def ssh(self, options, *command):
        return ["ssh", "-F", "/dev/null", *self.server.ssh_options(), "-c", CIPHER, "-p", str(self.server.port), *options,
                f"{self.server.user}@{self.host}", *command]

    def at_server(self, command):
        return self.ssh(["-S", self.socket], command)

    def url(self, method, path):
        if self.server.protocol == "s3":
            return [self.server.store.bucket.presigned(method, path, self.host, self.server.port)]
        scheme = "ftp" if self.server.protocol == "ftp" else "http"
        return ["-u", f"{self.server.user}:{self.server.password}",
                f"{scheme}://{self.host}:{self.server.port}{self.server.path}{path}"]

    def seconds(self, command, **rest):
        start = time.monotonic()
        run(command, self.site.timeout, **rest)
        return time.monotonic() - start

    def curl(self, *arguments):
        return float(run(["curl", "-sSf", "-w", "%{time_total}", *arguments], self.site.timeout))

    def read(self):
        if self.over_ssh:
            with open(os.devnull, "wb") as f:
                return {"read": self.seconds(self.at_server(f"cat {self.server.data}/big"), output=f)}
        try:
            seconds = self.curl("-o", self.target, *self.url("GET", "big"))
            if not content.same_bytes(self.target, f"{self.site.data}/big"):
                raise Failure("other bytes came")
        finally:
            if os.path.exists(self.target):
                os.remove(self.target)
        return {"read": seconds}

    def part(self, key, first, count):
        with open(self.target, "wb") as f:
            if self.over_ssh:
                end = f"tail -c {count}" if first else f"head -c {count}"
                seconds = self.seconds(self.at_server(f"{end} {self.server.data}/big"), output=f)
            else:
                seconds = self.curl("-r", f"{first}-{first + count - 1}", *self.url("GET", "big"), "-o", self.target)
        size = os.path.getsize(self.target)
        os.remove(self.target)
        if size != count:
            raise Failure(f"{size} bytes came instead of {count}")
        return {key: seconds}

    def first(self):
        # Two of them: s3rver takes a range that ends with byte 0 for one without an end.
        return self.part("first", 0, 2)

    def tail(self):
        return self.part("tail", (self.site.sizes.big - 1) * content.MIB, content.MIB)

    def write(self):
        source = f"{self.site.data}/big"
        if self.over_ssh:
            with open(source, "rb") as f:
                seconds = self.seconds(self.at_server(f"cat > {self.server.data}/scratch/big"), input_file=f)
        else:
            seconds = self.curl("-o", os.devnull, "-T", source, *self.url("PUT", "scratch/big"))
        if not self.site.store.equals("scratch/big", source):
            raise Failure("other bytes arrived")
        return {"write": seconds}

    def tree_read(self):
        with open(os.devnull, "wb") as f:
            return {"tree-read": self.seconds(self.at_server(f"tar c -C {self.server.data} small"), output=f)}

    def log_in(self):
        return {"mount": self.seconds(self.ssh([], "true"))}
