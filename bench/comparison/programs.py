"""What is compared: each mounts a server's folder and can be asked what it took."""
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.parse

from comparison.processes import (Failure, command_of, detach, end_all_below, is_mounted, kill_group, last_line,
                                  mounts_named, processes_below, run, start, start_time, stop, usage)


class Program:
    """One at a time is mounted. `folder` is where it keeps what it caches, on the same file system for all."""

    name, package = "", ""
    protocols = ()
    options_said = "default options"

    def __init__(self, folder, timeout):
        self.folder, self.timeout = f"{folder}/{self.name}", timeout
        os.makedirs(self.folder, mode=0o700, exist_ok=True)
        self.mount_path = None

    def missing(self):
        return None if shutil.which(self.name) else f"not installed (package {self.package})"

    def prepare(self, server, host):
        """Writes what it reads when it mounts. Not timed."""

    def usage(self):
        return usage(self.pid())

    def last_words(self):
        """What it said before it ended by itself, to be added to what failed."""
        return ""

    def log(self):
        return f"{self.folder}/log"


class Ombra(Program):
    name = "ombra"
    protocols = ("sftp", "webdav", "s3", "ftp")

    def __init__(self, folder, timeout, build):
        super().__init__(folder, timeout)
        self.command = f"{build}/bin/ombra"
        home = f"{self.folder}/home"
        os.makedirs(f"{home}/.ssh", mode=0o700, exist_ok=True)
        os.makedirs(f"{home}/tmp", mode=0o700, exist_ok=True)
        self.environment = {"PATH": os.environ.get("PATH", ""), "LC_ALL": "C.UTF-8", "HOME": home,
                            "XDG_CONFIG_HOME": f"{home}/config", "XDG_DATA_HOME": f"{home}/data",
                            "XDG_STATE_HOME": f"{home}/state", "OMBRAFS_TMPDIR": f"{home}/tmp",
                            "USER": os.environ.get("USER", "root")}
        self.known_hosts = f"{home}/.ssh/known_hosts"
        self.volume = f"ombra-bench-{os.getpid()}"
        self.helper = None

    def missing(self):
        return None if os.access(self.command, os.X_OK) else f"{self.command} is not built"

    def prepare(self, server, host):
        if server.protocol == "sftp":
            shutil.copy(server.known_hosts, self.known_hosts)

    def arguments(self, server, host):
        user = urllib.parse.quote(server.user, safe="")
        place = f"{user}@{host}:{server.port}{urllib.parse.quote(server.path)}"
        if server.protocol == "sftp":
            return ["--identity", server.key, f"sftp://{place}"]
        if server.protocol == "webdav":
            return ["--password-file", server.password_file, f"dav://{place}"]
        if server.protocol == "s3":
            return ["--password-file", server.password_file, "--endpoint", f"http://{host}:{server.port}",
                    "--path-style", f"s3://{user}@{server.bucket_name}"]
        return [f"ftp://{host}:{server.port}{server.path}"]

    def mount(self, server, host):
        self.helper = None
        text = run([self.command, "mount", "--json", "--accept-new", "--name", self.volume,
                    *self.arguments(server, host)], self.timeout, self.environment)
        self.mount_path = json.loads(text)["mountPath"]
        return self.mount_path

    def pid(self):
        if self.helper is None:
            helpers = [pid for pid in processes_below(self.folder) if command_of(pid).startswith("ombrafs-helper")]
            if not helpers:
                raise Failure("the helper is gone")
            self.helper = max(helpers, key=start_time)  # the one before may not have ended yet
        return self.helper

    def unmount(self):
        run([self.command, "unmount", self.mount_path], self.timeout, self.environment)
        self.mount_path = None

    def kill(self):
        """After a failure: nothing is left of it, nor of the session bus that the command started for this home, nor of
        a mount whose command did not come to tell the path."""
        end_all_below(self.folder)
        for path in mounts_named(self.volume):
            detach(path)
            try:
                os.rmdir(path)
            except OSError:
                pass
        self.mount_path = None

    def close(self):
        self.kill()


class Peer(Program):
    """One that stays in the foreground until its volume is unmounted."""

    unmount_command = ("umount",)

    def command(self, server, host):
        raise NotImplementedError

    def environment(self):
        return dict(os.environ, HOME=self.folder)

    def mount(self, server, host):
        self.mount_path = tempfile.mkdtemp(prefix="mnt-", dir=self.folder)
        self.process = start(self.command(server, host), self.log(), self.environment())
        deadline = time.monotonic() + self.timeout
        while not is_mounted(self.mount_path):
            if self.process.poll() is not None:
                raise Failure(f"does not mount: {last_line(self.log())}")
            if time.monotonic() > deadline:
                raise Failure(f"is not mounted after {self.timeout:.0f} s")
            time.sleep(0.002)
        return self.mount_path

    def pid(self):
        return self.process.pid

    def last_words(self):
        process = getattr(self, "process", None)
        if process is None or process.poll() is None or self.mount_path is None:
            return ""
        return f" (it ended: {last_line(self.log())})"

    def unmount(self):
        run([*self.unmount_command, self.mount_path], self.timeout)
        # What was measured is stored and compared by now; one that then does not end is none the slower for it.
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            kill_group(self.process)
        os.rmdir(self.mount_path)
        self.mount_path = None

    def kill(self):
        if getattr(self, "process", None) is not None and self.process.poll() is None:
            kill_group(self.process)
        if self.mount_path:
            detach(self.mount_path)
            stop(getattr(self, "process", None))
            try:
                os.rmdir(self.mount_path)
            except OSError:
                pass
        self.mount_path = None

    def close(self):
        self.kill()


def end(pid):
    try:
        os.kill(pid, signal.SIGKILL)
    except (ProcessLookupError, TypeError):
        pass
