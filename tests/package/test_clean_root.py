"""The Debian package in a system that has nothing but Debian's base: it is installed by apt, which fetches what the package
says it depends on, and mounts from there. Takes minutes, so only with OMBRA_NIGHTLY=1.

The base system is kept in ~/.cache/ombra-test-root; a run changes a layer over it, which is thrown away."""
import contextlib
import glob
import json
import os
import re
import select
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import unittest

BUILD = os.environ["OMBRA_BUILD_DIR"]
VERSION = os.environ["OMBRA_VERSION"]
CPACK = os.path.join(os.path.dirname(os.environ.get("OMBRA_CMAKE", "/usr/bin/cmake")), "cpack")
CACHE = os.environ.get("XDG_CACHE_HOME", os.path.expanduser("~/.cache"))
BASE = CACHE + "/ombra-test-root/bookworm"
ARCHIVES = CACHE + "/ombra-test-root/archives"
LIBEXEC = "/usr/libexec/ombrafs"
LOADER = LIBEXEC + "/ombradiskfs.fs/Contents/Resources/org.ombrafs.filesystems.ombradiskfs.components/load_drelfs"

WORK = None
ROOT = None


def run(*words, **options):
    """Through files, since a message bus that is started inherits what it is given. Fails with what the program said."""
    with tempfile.TemporaryFile("w+") as out:
        code = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT, **options).returncode
        out.seek(0)
        text = out.read()
    if code != 0:
        raise AssertionError(f"{' '.join(words)} ended with {code}:\n{text[-4000:]}")
    return text


def chroot(*words, user=None):
    environment = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8",
                   "DEBIAN_FRONTEND": "noninteractive", "HOME": f"/home/{user}" if user else "/root"}
    environment.update({key: value for key, value in os.environ.items() if key.lower().endswith("_proxy")})
    change = ["chroot", f"--userspec={user}:{user}"] if user else ["chroot"]
    return run(*change, ROOT, *words, env=environment)


def make_base():
    if os.path.exists(BASE + "/etc/debian_version"):
        return
    new = BASE + ".new"
    shutil.rmtree(new, ignore_errors=True)
    os.makedirs(new)
    run("debootstrap", "--variant=minbase", "bookworm", new, "http://deb.debian.org/debian")
    with open(new + "/etc/apt/sources.list", "w") as sources:
        sources.write("deb http://deb.debian.org/debian bookworm main\n"
                      "deb http://deb.debian.org/debian bookworm-updates main\n"
                      "deb http://deb.debian.org/debian-security bookworm-security main\n")
    # No service is to start, and the archives are kept for the next run.
    with open(new + "/usr/sbin/policy-rc.d", "w") as policy:
        policy.write("#!/bin/sh\nexit 101\n")
    os.chmod(new + "/usr/sbin/policy-rc.d", 0o755)
    os.rename(new, BASE)


def setUpModule():
    global WORK, ROOT
    WORK = tempfile.mkdtemp(prefix="ombra-clean-", dir="/var/tmp")
    os.chmod(WORK, 0o755)
    make_base()
    ROOT = WORK + "/root"
    # Not on an overlay itself, wherever the tests run.
    run("mount", "-t", "tmpfs", "-o", "size=2g,mode=755", "ombra-test", WORK)
    for folder in ["upper", "work", "root", "package"]:
        os.mkdir(f"{WORK}/{folder}")
    run("mount", "-t", "overlay", "-o", f"lowerdir={BASE},upperdir={WORK}/upper,workdir={WORK}/work", "overlay", ROOT)
    run("mount", "-t", "proc", "proc", ROOT + "/proc")
    run("mount", "-t", "tmpfs", "-o", "mode=755", "dev", ROOT + "/dev")
    for name, number in {"null": (1, 3), "zero": (1, 5), "urandom": (1, 9), "random": (1, 8), "tty": (5, 0),
                         "fuse": (10, 229)}.items():
        os.mknod(f"{ROOT}/dev/{name}", stat.S_IFCHR | 0o666, os.makedev(*number))
        os.chmod(f"{ROOT}/dev/{name}", 0o666)
    os.makedirs(ARCHIVES, exist_ok=True)
    run("mount", "--bind", ARCHIVES, ROOT + "/var/cache/apt/archives")
    with contextlib.suppress(FileNotFoundError):
        shutil.copy("/etc/resolv.conf", ROOT + "/etc/resolv.conf")
    with open(ROOT + "/etc/apt/apt.conf.d/99test", "w") as settings:
        settings.write('APT::Sandbox::User "root";\nBinary::apt-get::APT::Keep-Downloaded-Packages "true";\n')


def processes_in_root():
    for folder in glob.glob("/proc/[0-9]*"):
        with contextlib.suppress(OSError):
            if os.readlink(folder + "/root") == ROOT:
                yield int(folder[len("/proc/"):])


def tearDownModule():
    # What was started in the clean system has it as its root folder, and nothing else has.
    for process in list(processes_in_root()):
        with contextlib.suppress(ProcessLookupError):
            os.kill(process, signal.SIGKILL)
    if WORK and os.path.ismount(WORK):
        run("umount", "-l", "-R", WORK)
    if WORK:
        os.rmdir(WORK)


class Package(unittest.TestCase):
    """In the order of their names, since each stage stands on the one before."""

    def mounts(self):
        with open("/proc/self/mountinfo") as table:
            return [line.split() for line in table if f" {ROOT}/Volumes/" in line]

    LOGS = "/home/anna/.local/state/ombrafs/OmbraFSHelperLogs"

    def leave_logs(self, days_old):
        """As if volumes had been mounted before."""
        chroot("mkdir", "-p", "-m", "700", self.LOGS, user="anna")
        for name, days in days_old.items():
            chroot("touch", "-d", f"{days} days ago", f"{self.LOGS}/{name}", user="anna")

    def unmount_and_wait(self, name, user=None):
        """As umount(8) does it: at once. Then the helper is waited for, which removes the folder of the mount."""
        volumes = json.loads(chroot("ombra", "list", "--json", user="anna"))["volumes"]
        helper = os.pidfd_open([v["pid"] for v in volumes if v["volumeName"] == name][0])
        chroot("umount", "/Volumes/" + name, user=user)
        self.assertTrue(select.select([helper], [], [], 30)[0], "the helper did not end")
        os.close(helper)
        self.assertEqual([mount for mount in self.mounts() if mount[4].endswith("/" + name)], [])

    def test_1_is_made(self):
        run(CPACK, "-G", "DEB", "-B", WORK + "/package", cwd=BUILD)
        packages = glob.glob(WORK + "/package/*.deb")
        self.assertEqual([os.path.basename(p) for p in packages],
                         [f"ombra_{VERSION}_{run('dpkg', '--print-architecture').strip()}.deb"])
        depends = run("dpkg-deb", "-f", packages[0], "Depends")
        for package in ["fuse3", "dbus-daemon", "libfuse3-3", "libssh-4", "libcurl4", "libc6"]:
            self.assertRegex(depends, rf"(^|, ){package}\b")
        contents = run("dpkg-deb", "-c", packages[0])
        self.assertRegex(contents, rf"-rwsr-xr-x root/root +\d+ [^\n]* \.{re.escape(LOADER)}\n")
        self.assertNotRegex(contents, r"(?m)^[-d](....w|.{7}w)", "writable by others")
        shutil.copy(packages[0], ROOT + "/ombra.deb")

    def test_2_has_nothing_that_the_checker_of_packages_calls_an_error(self):
        if not shutil.which("lintian"):
            self.fail("lintian is not installed: scripts/dependencies test")
        # The set-user-ID bit is meant, and there is no address for mail yet.
        told = run("lintian", "--allow-root", "--fail-on=none", "--display-level=>=warning", "--suppress-tags",
                   "elevated-privileges,bogus-mail-host,bogus-mail-host-in-debian-changelog", ROOT + "/ombra.deb")
        self.assertEqual([line for line in told.splitlines() if line[:2] in ("E:", "W:")], [])

    def test_3_is_installed_with_what_it_depends_on(self):
        chroot("apt-get", "update", "-qq")
        self.assertFalse(os.path.exists(ROOT + "/usr/bin/fusermount3"), "the system is not clean")
        chroot("apt-get", "install", "-y", "-qq", "/ombra.deb")
        self.assertEqual(chroot("ombra", "--version"), f"ombra {VERSION}\n")
        self.assertEqual(stat.S_IMODE(os.stat(ROOT + "/Volumes").st_mode), 0o1777)
        self.assertEqual(chroot("ldd", "/usr/bin/ombra", LIBEXEC + "/ombrafs-helper").count("not found"), 0)
        self.assertEqual(chroot("dpkg", "--verify", "ombra"), "")
        with open(ROOT + "/usr/lib/systemd/user/ombra@.service") as unit:
            self.assertIn("ExecStart=/usr/bin/ombra mount ", unit.read())

    def test_4_a_user_mounts_the_sample(self):
        chroot("useradd", "-m", "-s", "/bin/bash", "anna")
        os.mkdir(ROOT + "/home/anna/shared")
        with open(ROOT + "/home/anna/shared/hello.txt", "w") as file:
            file.write("hello\n")
        chroot("chown", "-R", "anna:anna", "/home/anna")
        self.leave_logs({"Gone_2020-01-01-000000_Console.log": 15, "Gone_2020-01-01-000000_Transcript.log": 15,
                         "Kept_2020-01-03-000000_Console.log": 13})
        self.assertEqual(chroot("ombra", "sample", user="anna"), "/Volumes/Ombra Sample\n")
        self.assertEqual({name.split("_")[0] for name in os.listdir(ROOT + self.LOGS)}, {"Kept", "Ombra Sample"})
        self.assertIn("> ", chroot("ombra", "logs", "Ombra Sample", "--transcript", user="anna"))
        # A machine without a desktop, agent and service manager mounts all the same, and has nothing to repair.
        lines = chroot("ombra", "doctor", user="anna").splitlines()
        self.assertEqual([line for line in lines if line.startswith("WRONG")], [])
        for subject in ["fuse device", "fusermount3", "mount points", "helper", "fuse loader"]:
            self.assertTrue([line for line in lines if line.startswith(f"good   {subject} ")], subject)
        self.assertGreater(len(chroot("ls", "/Volumes/Ombra Sample", user="anna").splitlines()), 0)
        volumes = json.loads(chroot("ombra", "list", "--json", user="anna"))["volumes"]
        self.assertEqual([(v["volumeName"], v["protocol"], v["state"]) for v in volumes],
                         [("Ombra Sample", "sftp", "mounted")])
        # Nothing was repaired: the loader is as the package brought it.
        self.assertEqual(chroot("dpkg", "--verify", "ombra"), "")
        chroot("ombra", "unmount", "Ombra Sample", user="anna")
        self.assertEqual(self.mounts(), [])

    def test_5_mount_takes_the_type(self):
        self.assertEqual(chroot("mount", "-t", "ombra", "-o", "uid=anna,ro", "file:///home/anna/shared", "/Volumes/Shared"), "")
        self.assertEqual(chroot("cat", "/Volumes/Shared/hello.txt", user="anna"), "hello\n")
        self.assertEqual([line[5].split(",")[0] for line in self.mounts()], ["ro"])
        self.assertIn("/Volumes/Shared", chroot("ombra", "list", user="anna"))
        self.unmount_and_wait("Shared")
        self.assertEqual(self.mounts(), [])
        with self.assertRaisesRegex(AssertionError, "Use /Volumes/NAME"):
            chroot("mount", "-t", "fuse.ombra", "file:///home/anna/shared", "/mnt")

    def test_6_lines_of_fstab_are_mounted(self):
        with open(ROOT + "/etc/fstab", "w") as table:
            table.write("file:///home/anna/shared /Volumes/Boot ombra uid=anna,_netdev,nofail 0 0\n"
                        "file:///home/anna/shared /Volumes/Hers ombra noauto,user 0 0\n"
                        "file:///home/anna/shared /Volumes/Typo ombra noauto,colour=blue 0 0\n")
        os.mkdir(ROOT + "/Volumes/Boot")  # as systemd makes it
        chroot("mount", "-a")
        self.assertEqual(chroot("cat", "/Volumes/Boot/hello.txt", user="anna"), "hello\n")
        chroot("mount", "/Volumes/Hers", user="anna")
        self.assertEqual(chroot("cat", "/Volumes/Hers/hello.txt", user="anna"), "hello\n")
        chroot("sh", "-c", "echo written >/Volumes/Hers/new.txt", user="anna")
        with self.assertRaisesRegex(AssertionError, "“colour” is not known"):
            chroot("mount", "/Volumes/Typo")
        self.unmount_and_wait("Hers", user="anna")
        chroot("ombra", "unmount", "Boot", user="anna")
        self.assertEqual(self.mounts(), [])
        with open(ROOT + "/home/anna/shared/new.txt") as file:
            self.assertEqual(file.read(), "written\n")

    def test_7_is_removed_without_a_trace(self):
        chroot("apt-get", "purge", "-y", "-qq", "ombra")
        for path in ["/Volumes", LIBEXEC, "/usr/bin/ombra", "/usr/share/doc/ombra", "/usr/sbin/mount.ombra"]:
            self.assertFalse(os.path.lexists(ROOT + path), path)


if __name__ == "__main__":
    if os.environ.get("OMBRA_NIGHTLY") != "1":
        print("Takes minutes: set OMBRA_NIGHTLY=1, or run scripts/test --nightly.")
        sys.exit(77)
    if os.geteuid() != 0:
        print("Needs root, to make a system of its own.")
        sys.exit(1 if os.environ.get("CI") else 77)
    unittest.main(failfast=True)
