"""Processes that never outlive the benchmark, and never make it hang."""
import os
import re
import select
import signal
import socket
import subprocess
import tempfile
import time

TICK = os.sysconf("SC_CLK_TCK")


class Failure(Exception):
    """A step did not do what it should; the text is for the reader of the table."""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, process, log, host="127.0.0.1", seconds=20):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if process.poll() is not None:
            break
        try:
            socket.create_connection((host, port), 1).close()
            return
        except OSError:
            time.sleep(0.02)
    raise Failure(f"{process.args[0]} did not start: {last_line(log)}")


def last_line(path):
    try:
        with open(path, errors="replace") as f:
            lines = [line.strip() for line in f if line.strip()]
    except OSError:
        return "no log"
    return lines[-1][:300] if lines else "it said nothing"


def launched(command, **rest):
    try:
        return subprocess.Popen(command, **rest)
    except FileNotFoundError as problem:
        raise Failure(f"{os.path.basename(problem.filename)} is not installed") from None


def run(command, timeout=60, env=None, cwd=None, input_file=None, output=None):
    """Runs to the end and returns what it printed; output may be an open file instead. Text goes through files: a
    daemon that a command leaves behind keeps a pipe open for as long as it lives."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        process = launched(command, stdin=input_file or subprocess.DEVNULL, stdout=output or out, stderr=err, env=env,
                           cwd=cwd, start_new_session=True)
        try:
            if not wait_for_end(process, timeout):
                raise Failure(f"{os.path.basename(command[0])} did not finish within {timeout:.0f} s")
        finally:
            if process.poll() is None:
                kill_group(process)
        out.seek(0)
        err.seek(0)
        text = out.read().decode(errors="replace")
        if process.returncode != 0:
            said = (err.read().decode(errors="replace").strip() or text.strip() or f"status {process.returncode}")
            raise Failure(f"{os.path.basename(command[0])}: {' / '.join(said.splitlines()[-2:])[:300]}")
        return text


def wait_for_end(process, timeout):
    """False when it has not ended by then. Popen.wait with a time-out looks only every 50 ms, which is as long as mounting
    takes."""
    descriptor = os.pidfd_open(process.pid)
    try:
        poll = select.poll()
        poll.register(descriptor, select.POLLIN)
        if not poll.poll(timeout * 1000):
            return False
    finally:
        os.close(descriptor)
    process.wait()
    return True


def kill_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    # One that hangs in a call to a dead mount cannot be waited for; the mount goes away first, then it does.
    try:
        process.wait(2)
    except subprocess.TimeoutExpired:
        pass


def start(command, log, env=None, cwd=None):
    """Starts what stays, as a group of its own (so that Ctrl-C reaches the benchmark alone, which ends it in order)."""
    with open(log, "ab") as f:
        return launched(command, stdin=subprocess.DEVNULL, stdout=f, stderr=f, env=env, cwd=cwd, start_new_session=True)


def stop(process, seconds=5):
    if process is None or process.poll() is not None:
        return
    process.terminate()
    try:
        process.wait(seconds)
    except subprocess.TimeoutExpired:
        pass
    kill_group(process)


def family(pid):
    """The process, those of its session and all that descend from them. Some let go of their children, which then belong
    to the session alone."""
    parents, members = {}, {pid}
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open(f"/proc/{name}/stat") as f:
                fields = f.read().rpartition(")")[2].split()
        except OSError:
            continue
        parents[int(name)] = int(fields[1])
        if int(fields[3]) == pid:
            members.add(int(name))
    for child in sorted(parents):
        line, ancestor = [], child
        while ancestor in parents and ancestor not in members:
            line.append(ancestor)
            ancestor = parents[ancestor]
        if ancestor in members:
            members.update(line)
    return members


def usage(pid):
    """Peak resident memory in bytes and seconds of CPU of a process with its children, since each was started."""
    memory, seconds = 0, 0.0
    for member in family(pid):
        try:
            with open(f"/proc/{member}/status") as f:
                peak = re.search(r"VmHWM:\s+(\d+)", f.read())
            with open(f"/proc/{member}/stat") as f:
                fields = f.read().rpartition(")")[2].split()
        except OSError:
            continue
        memory += int(peak.group(1)) * 1024 if peak else 0
        seconds += sum(int(ticks) for ticks in fields[11:15]) / TICK
    return memory, seconds


def is_mounted(path):
    with open("/proc/self/mounts") as f:
        return f" {path} " in f.read()


def mounts_named(name):
    """The mount points of that name, whatever folder they are in; with a number behind it, too."""
    with open("/proc/self/mounts") as f:
        paths = [line.split(" ")[1] for line in f]
    return [path for path in paths if re.fullmatch(re.escape(name) + r"(-\d+)?", os.path.basename(path))]


def detach(path):
    """Takes a mount away whoever holds it; does not ask the program behind it."""
    if is_mounted(path):
        command = ["umount", "-l", path] if os.geteuid() == 0 else ["fusermount3", "-uz", path]
        # -i where it exists: without the helper program of the mount's type, which would wait for a dead daemon.
        if os.geteuid() == 0:
            command.insert(1, "-i")
        try:
            run(command, 10)
        except Failure:
            pass


def end_all_below(folder):
    """Kills what still has the folder in its environment or command line: helpers, and the bus that they share."""
    for pid in processes_below(folder):
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            continue


def processes_below(folder):
    """Those that have the folder in their environment or command line, without this one."""
    needle, found = folder.encode(), []
    for name in os.listdir("/proc"):
        if not name.isdigit() or int(name) == os.getpid():
            continue
        try:
            with open(f"/proc/{name}/environ", "rb") as environment, open(f"/proc/{name}/cmdline", "rb") as line:
                if needle in environment.read() or needle in line.read():
                    found.append(int(name))
        except OSError:
            continue
    return found


def command_of(pid):
    try:
        return os.path.basename(os.readlink(f"/proc/{pid}/exe"))
    except OSError:
        return ""


def start_time(pid):
    """In ticks since the machine came up; 0 for one that is gone."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            return int(f.read().rpartition(")")[2].split()[19])
    except OSError:
        return 0
