"""The tree that "cmake --install" makes: what is in it, whether its parts agree with each other, and whether it mounts."""
import contextlib
import gzip
import json
import os
import re
import select
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import unittest

BUILD = os.environ["OMBRA_BUILD_DIR"]
SOURCE = os.environ["OMBRA_SOURCE_DIR"]
VERSION = os.environ["OMBRA_VERSION"]
CMAKE = os.environ.get("OMBRA_CMAKE", "cmake")
COMPONENTS = "libexec/ombrafs/ombradiskfs.fs/Contents/Resources/org.ombrafs.filesystems.ombradiskfs.components"
COMMANDS = ["mount", "sample", "list", "status", "unmount", "refresh", "logs", "defaults"]

WORK = None  # a folder of this run
PREFIX = None  # the installed tree


def setUpModule():
    global WORK, PREFIX
    WORK = tempfile.mkdtemp(prefix="ombra-package-")
    os.chmod(WORK, 0o755)
    subprocess.run([CMAKE, "--install", BUILD, "--prefix", "/usr"], check=True, stdout=subprocess.DEVNULL,
                   env={**os.environ, "DESTDIR": WORK + "/root"})
    PREFIX = WORK + "/root/usr"


def tearDownModule():
    shutil.rmtree(WORK)


def output(*words, **options):
    return subprocess.run(words, check=True, capture_output=True, text=True, **options).stdout


def ombra_help(command=""):
    return output(PREFIX + "/bin/ombra", *command.split(), "--help")


def subcommands():
    """The names in the list that the help ends with."""
    listed = ombra_help().split("Subcommands:")[1].split("\n\n")[0]
    return re.findall(r"^  ([a-z]+) ", listed, re.M)


def options_in_help(command=""):
    """The long options, and the short ones beside them: {"--watch": "-w"}."""
    found = {}
    for line in ombra_help(command).splitlines():
        match = re.match(r"  (?:(-\w),)?(--[a-z-]+)\b", line)
        if match:
            found[match[2]] = match[1]
    return found


def require_tool(test, name):
    """A tool that is missing must never look like a pass where everything is to be there."""
    if shutil.which(name):
        return
    if os.environ.get("CI"):
        test.fail(f"{name} is not installed: scripts/dependencies test")
    test.skipTest(f"{name} is not installed")


def require_root(test):
    if os.geteuid() == 0:
        return
    if os.environ.get("CI"):
        test.fail("needs root")
    test.skipTest("needs root")


class Tree(unittest.TestCase):
    def mode(self, path):
        return stat.S_IMODE(os.lstat(f"{PREFIX}/{path}").st_mode)

    def test_holds_what_an_installed_copy_needs_and_nothing_else(self):
        found = {os.path.relpath(os.path.join(folder, name), PREFIX)
                 for folder, _, names in os.walk(PREFIX) for name in names}
        pages = {f"share/man/man1/ombra-{name}.1.gz" for name in subcommands()}
        expected = pages | {
            "bin/ombra",
            "sbin/mount.ombra",
            "sbin/mount.fuse.ombra",
            "libexec/ombrafs/ombrafs-helper",
            "libexec/ombrafs/repair_drelfs",
            COMPONENTS + "/load_drelfs",
            COMPONENTS + "/ombradiskfs.kext/Contents/modules-load.conf",
            "lib/tmpfiles.d/ombra.conf",
            "lib/systemd/user/ombra@.service",
            "share/polkit-1/actions/org.ombrafs.policy",
            "share/bash-completion/completions/ombra",
            "share/zsh/vendor-completions/_ombra",
            "share/fish/vendor_completions.d/ombra.fish",
            "share/man/man1/ombra.1.gz",
            "share/man/man8/mount.ombra.8.gz",
            "share/man/man8/mount.fuse.ombra.8.gz",
            "share/doc/ombra/changelog.gz",
            "share/doc/ombra/copyright",
        }
        # Programs that the helper and the command start or load, of which a build may have some.
        expected |= found & {"libexec/ombrafs/ombrafs-keyring", "libexec/ombrafs/libfusemod_redirect.so"}
        self.assertEqual(found, expected)

    def test_the_loader_is_set_user_id_and_nothing_else_is(self):
        self.assertEqual(self.mode(COMPONENTS + "/load_drelfs"), 0o4755)
        special = [name for folder, _, names in os.walk(PREFIX) for name in names
                   if os.lstat(os.path.join(folder, name)).st_mode & 0o6000]
        self.assertEqual(special, ["load_drelfs"])

    def test_programs_can_be_run_and_nothing_is_writable_by_others(self):
        for path in ["bin/ombra", "sbin/mount.ombra", "libexec/ombrafs/ombrafs-helper"]:
            self.assertEqual(self.mode(path), 0o755, path)
        for folder, folders, names in os.walk(PREFIX):
            for name in folders + names:
                path = os.path.join(folder, name)
                if not os.path.islink(path):
                    self.assertEqual(os.lstat(path).st_mode & 0o022, 0, path)

    def test_documents_can_be_read_by_all(self):
        for folder, _, names in os.walk(PREFIX + "/share"):
            for name in names:
                self.assertEqual(os.stat(os.path.join(folder, name)).st_mode & 0o777, 0o644, name)

    def test_the_other_type_of_mount_is_the_same_program(self):
        self.assertEqual(os.readlink(PREFIX + "/sbin/mount.fuse.ombra"), "mount.ombra")

    def test_the_command_tells_the_version_of_the_project(self):
        self.assertEqual(output(PREFIX + "/bin/ombra", "--version"), f"ombra {VERSION}\n")

    def test_the_list_of_changes_begins_with_this_version(self):
        with gzip.open(PREFIX + "/share/doc/ombra/changelog.gz", "rt") as changes:
            self.assertTrue(changes.readline().startswith(f"ombra ({VERSION}) "))

    def test_scripts_of_the_package_can_be_read_by_the_shell(self):
        for name in ["postinst", "postrm"]:
            subprocess.run(["sh", "-n", f"{SOURCE}/packaging/debian/{name}"], check=True)


class ManPages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = WORK + "/man"
        os.makedirs(cls.folder, exist_ok=True)
        cls.pages = {}
        for section in ["man1", "man8"]:
            for name in os.listdir(f"{PREFIX}/share/man/{section}"):
                if os.path.islink(f"{PREFIX}/share/man/{section}/{name}"):
                    continue
                path = f"{cls.folder}/{name[:-3]}"
                with gzip.open(f"{PREFIX}/share/man/{section}/{name}", "rt") as page, open(path, "w") as plain:
                    cls.pages[name[:-3]] = page.read()
                    plain.write(cls.pages[name[:-3]])

    def words(self, page):
        return self.pages[page].replace("\\-", "-")

    def test_format_without_warnings(self):
        require_tool(self, "man")
        running = [(name, subprocess.Popen(
            ["man", "-l", "--warnings", f"{self.folder}/{name}"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            env={**os.environ, "MANWIDTH": "100", "LC_ALL": "C.UTF-8"})) for name in sorted(self.pages)]
        for name, process in running:
            self.assertEqual(process.communicate()[1], b"", name)
            self.assertEqual(process.returncode, 0, name)

    def test_another_formatter_finds_nothing_wrong(self):
        require_tool(self, "mandoc")
        lint = subprocess.run(["mandoc", "-Tlint", "-W", "warning"] + [f"{self.folder}/{name}" for name in self.pages],
                              capture_output=True, text=True)
        self.assertEqual((lint.stdout, lint.stderr, lint.returncode), ("", "", 0))

    def test_name_the_version_of_the_project(self):
        for name, text in self.pages.items():
            self.assertIn(f'"Ombra {VERSION}"', text.splitlines()[0], name)

    def test_there_is_one_for_each_command(self):
        self.assertGreaterEqual(set(subcommands()), set(COMMANDS))
        for command in subcommands():
            self.assertIn(f"ombra-{command}.1", self.pages)
            self.assertIn(f"ombra-{command} - ", self.words(f"ombra-{command}.1"), "for whatis(1)")
            self.assertIn(f"ombra-{command} (1)", self.words("ombra.1"))

    def test_tell_every_option_of_the_help(self):
        for command in [""] + subcommands() + ["defaults get", "defaults set"]:
            page = "ombra.1" if not command else f"ombra-{command.split()[0]}.1"
            options = options_in_help(command)
            self.assertIn("--help", options)
            for long, short in options.items():
                for option in filter(None, [long, short]):
                    self.assertRegex(self.words(page), rf"(?<![\w-]){re.escape(option)}(?![\w-])", page)

    def test_tell_no_option_that_the_command_does_not_have(self):
        for command in subcommands():
            known = set(options_in_help(command))
            if command == "defaults":
                known |= set(options_in_help("defaults get"))
            told = set(re.findall(r"^\.TP\n\.B[IR]? (?:-\w \", \" )?(--[a-z-]+)", self.words(f"ombra-{command}.1"), re.M))
            self.assertEqual(told - known, set(), command)

    def test_the_settings_are_those_of_the_help(self):
        for setting in re.findall(r"^  ([A-Z]\w+) ", ombra_help("defaults"), re.M):
            self.assertIn(f".B {setting}\n", self.pages["ombra-defaults.1"])


class Completion(unittest.TestCase):
    """Bash is really asked; the words of the other shells are compared with the command's own."""

    def read(self, path):
        with open(f"{PREFIX}/share/{path}") as file:
            return file.read()

    def bash(self, *words, environment=None):
        """What is offered for the last of the words, as bash splits them."""
        script = """
            source "$1"; shift
            compopt() { :; }   # only there while bash itself completes
            COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
            _ombra ombra "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
            printf '%s\\n' "${COMPREPLY[@]}"
        """
        completion = PREFIX + "/share/bash-completion/completions/ombra"
        found = output("bash", "--norc", "-c", script, "bash", completion, *words, env=environment or os.environ)
        return found.splitlines() if found.strip() else []

    def test_bash_offers_the_commands(self):
        self.assertEqual(sorted(self.bash("ombra", "")), sorted(subcommands()))
        self.assertEqual(self.bash("ombra", "unm"), ["unmount"])

    def test_bash_offers_the_options_of_each_command(self):
        for command in [""] + subcommands() + ["defaults get", "defaults set"]:
            self.assertEqual(sorted(self.bash("ombra", *command.split(), "--")), sorted(options_in_help(command)), command)

    def test_bash_offers_what_begins_like_the_word(self):
        self.assertEqual(self.bash("ombra", "mount", "--pass"), ["--passthrough", "--password-file"])
        self.assertEqual(self.bash("ombra", "mount", "sf"), ["sftp://"])
        self.assertEqual(self.bash("ombra", "defaults", "set", "Deb"), ["DebugLogging"])
        self.assertEqual(self.bash("ombra", "defaults", "set", "DebugLogging", "t"), ["true"])

    def test_bash_offers_files_for_options_that_take_one(self):
        open(WORK + "/key file", "w").close()
        for words in [["--identity", WORK + "/ke"], ["--identity", "=", WORK + "/ke"]]:
            self.assertEqual(self.bash("ombra", "mount", *words), [WORK + "/key file"])

    def test_bash_takes_no_name_of_a_file_for_a_pattern(self):
        folder = WORK + "/patterns"
        os.mkdir(folder)
        for name in ["id*", "id_one"]:
            open(f"{folder}/{name}", "w").close()
        self.assertEqual(sorted(self.bash("ombra", "mount", "--identity", folder + "/id")),
                         [folder + "/id*", folder + "/id_one"])

    def test_bash_offers_nothing_for_a_server(self):
        self.assertEqual(self.bash("ombra", "mount", "sftp", ":", "//na"), [])
        self.assertEqual(self.bash("ombra", "mount", "--name", "Pho"), [])

    def volumes(self, names):
        """A command that lists such volumes."""
        folder = WORK + "/command"
        os.makedirs(folder, exist_ok=True)
        with open(folder + "/list.json", "w") as file:
            json.dump({"volumes": [{"address": "nas", "transfers": [{"path": "/x"}], "volumeName": name}
                                   for name in names]}, file, separators=(",", ":"), ensure_ascii=False)
        with open(folder + "/ombra", "w") as file:
            file.write(f"#!/bin/sh\n[ \"$*\" = 'list --json' ] && cat '{folder}/list.json'\n")
        os.chmod(folder + "/ombra", 0o755)
        return {**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"}

    def test_bash_offers_the_names_of_mounted_volumes(self):
        environment = self.volumes(["Photos", "Büro 2", 'a"b\\c', "Phone"])
        for command in ["unmount", "status", "logs"]:
            self.assertEqual(self.bash("ombra", command, "Ph", environment=environment), ["Photos", "Phone"])
        self.assertEqual(self.bash("ombra", "unmount", "B", environment=environment), ["Büro\\ 2"])
        self.assertEqual(self.bash("ombra", "unmount", "Büro\\ ", environment=environment), ["Büro\\ 2"])
        self.assertEqual(self.bash("ombra", "unmount", "a", environment=environment), ['a\\"b\\\\c'])

    def test_bash_offers_nothing_when_nothing_is_mounted(self):
        self.assertEqual(self.bash("ombra", "unmount", "", environment=self.volumes([])), [])

    def test_zsh_can_read_its_completion(self):
        require_tool(self, "zsh")
        subprocess.run(["zsh", "-n", PREFIX + "/share/zsh/vendor-completions/_ombra"], check=True)

    def test_zsh_knows_every_command_and_option(self):
        text = self.read("zsh/vendor-completions/_ombra")
        known = set(re.findall(r"(--[a-z-]+)\b", text))
        for command in subcommands():
            self.assertIn(f"'{command}:", text)
        self.assertEqual(known, self.all_options())

    def test_fish_can_read_its_completion(self):
        require_tool(self, "fish")
        subprocess.run(["fish", "--no-execute", PREFIX + "/share/fish/vendor_completions.d/ombra.fish"], check=True)

    def test_fish_offers_every_command_and_option(self):
        require_tool(self, "fish")
        environment = {**self.volumes(["Photos", "Büro 2"]), "HOME": WORK, "XDG_CONFIG_HOME": WORK + "/fish",
                       "XDG_DATA_HOME": WORK + "/fish", "XDG_CACHE_HOME": WORK + "/fish"}
        asked = [("ombra ", subcommands()), ("ombra unmount B", ["Büro 2"])]
        asked += [(f"ombra {command} --", options_in_help(command)) for command in subcommands()]
        asked.append(("ombra defaults get --", options_in_help("defaults get")))
        script = f"source {PREFIX}/share/fish/vendor_completions.d/ombra.fish\n"
        for line, _ in asked:
            script += f"complete -C '{line}'; echo ==\n"
        answers = output("fish", "--no-config", "-c", script, env=environment).split("==\n")
        for (line, expected), answer in zip(asked, answers):
            offered = {entry.split("\t")[0] for entry in answer.splitlines()}
            self.assertEqual(offered, set(expected), line)

    def all_options(self):
        known = set(options_in_help()) | set(options_in_help("defaults get"))
        return known.union(*(options_in_help(command) for command in subcommands()))


class Unit(unittest.TestCase):
    def test_systemd_finds_nothing_wrong(self):
        require_tool(self, "systemd-analyze")
        folder = WORK + "/units"
        os.makedirs(folder)
        with open(PREFIX + "/lib/systemd/user/ombra@.service") as unit, \
                open(folder + "/ombra@.service", "w") as checked:
            text = unit.read()
            self.assertIn("ExecStart=/usr/bin/ombra ", text)
            # The command and the manual of this tree, since those of the system may not be installed.
            checked.write(text.replace("/usr/bin/ombra", PREFIX + "/bin/ombra"))
        os.symlink("ombra@.service", folder + "/ombra@web-site.service")
        checked = subprocess.run(
            ["systemd-analyze", "--user", "--man=no", "--recursive-errors=no", "verify", folder + "/ombra@web-site.service"],
            capture_output=True, text=True,
            env={**os.environ, "HOME": WORK, "XDG_RUNTIME_DIR": WORK, "SYSTEMD_UNIT_PATH": folder + ":"})
        self.assertEqual((checked.returncode, checked.stderr.strip()), (0, ""))


def be_a_bad_parent():
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
    signal.signal(signal.SIGUSR2, signal.SIG_IGN)


class Loader(unittest.TestCase):
    """The set-user-ID program, run by somebody else with a hostile environment, where a program that writes down how it was
    started stands in for modprobe. All of that in a mount namespace of its own."""

    def load(self, *arguments, device=False):
        require_root(self)
        report = WORK + "/modprobe-report"
        with contextlib.suppress(FileNotFoundError):
            os.unlink(report)
        with open(WORK + "/modprobe", "w") as program:
            program.write(f"""#!{sys.executable} -IS
import json, os, signal, sys
open_now = [int(number) for number in os.listdir("/proc/self/fd")]
with open("{report}", "w") as report:
    json.dump(dict(arguments=sys.argv[1:], users=os.getresuid(), groups=[*os.getresgid(), *os.getgroups()], folder=os.getcwd(),
                   mask=os.umask(0), descriptors=sorted(open_now)[:-1], environment=dict(os.environ),
                   blocked=len(signal.pthread_sigmask(signal.SIG_BLOCK, [])),
                   ignored=signal.getsignal(signal.SIGUSR2) == signal.SIG_IGN), report)
""")
        script = f"""
            set -e
            mount -t tmpfs none /usr/sbin
            install -m 755 {WORK}/modprobe /usr/sbin/modprobe
            mount -t tmpfs -o mode=755 none /dev
            mknod -m 666 /dev/null c 1 3
            {"touch /dev/fuse" if device else ""}
            cd {WORK}
            umask 0
            exec 7</etc/passwd
            exec /usr/bin/setpriv --reuid 65534 --regid 65534 --groups 65534 -- /usr/bin/env -i PATH={WORK} \
              MODPROBE_OPTIONS=evil LD_LIBRARY_PATH={WORK} IFS=/ "$0" "$@"
        """
        words = ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, f"{PREFIX}/{COMPONENTS}/load_drelfs"]
        result = subprocess.run(words + list(arguments), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                preexec_fn=be_a_bad_parent)
        told = None
        if os.path.exists(report):
            with open(report) as file:
                told = json.load(file)
        return result.returncode, result.stdout, result.stderr, told

    def test_loads_the_module_as_root_and_passes_on_nothing_of_its_caller(self):
        code, out, err, told = self.load()
        self.assertEqual((code, out, err), (0, "", ""))
        self.assertEqual(told, {
            "arguments": ["--", "fuse"], "users": [0, 0, 0], "groups": [0, 0, 0], "folder": "/", "mask": 0o022,
            "descriptors": [0, 1, 2], "blocked": 0, "ignored": False,
            "environment": {"LC_ALL": "C", "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}})

    def test_takes_no_arguments(self):
        code, _, err, told = self.load("fuse")
        self.assertEqual((code, err, told), (2, "usage: load_drelfs (takes no arguments)\n", None))

    def test_does_nothing_where_the_device_is(self):
        self.assertEqual(self.load(device=True), (0, "", "", None))


class MountHelper(unittest.TestCase):
    """What mount.ombra makes of its arguments. With -f and -v it mounts nothing and tells what it would do."""

    def helper(self, *words):
        return subprocess.run([PREFIX + "/sbin/mount.ombra", *words], capture_output=True, text=True)

    def check(self, options, mount_point="/Volumes/NAS", url="sftp://anna@nas/p"):
        return self.helper(url, mount_point, "-f", "-v", "-o", options)

    def test_takes_what_mount_hands_over(self):
        for options in ["rw", "rw,noexec,nosuid,nodev,user=anna", "rw,_netdev,noauto,nofail", "ro,noatime",
                        "rw,x-systemd.automount", "uid=root,name=NAS,identity=/k,password-file=/p,accept-new",
                        'encoding="a,b",region=r,endpoint=https://s,profile=p,path-style,passthrough=x,icon=/i']:
            result = self.check(options)
            self.assertEqual((result.returncode, result.stderr), (0, ""), options)
            self.assertEqual(result.stdout, "mount.ombra: sftp://anna@nas/p at /Volumes/NAS for root\n")

    def assert_refused(self, result, *parts):
        self.assertEqual(result.returncode, 1, result)
        self.assertTrue(result.stderr.startswith("mount.ombra: "), result.stderr)
        for part in parts:
            self.assertIn(part, result.stderr)

    def test_refuses_what_it_does_not_know(self):
        self.assert_refused(self.check("rw,colour=blue"), "“colour” is not known", "identity=", "accept-new")
        self.assert_refused(self.check("gid=100"), "“gid” is not known")
        self.assert_refused(self.check("identity"), "“identity” needs a value")
        self.assert_refused(self.check("identity="), "“identity” has no value")
        self.assert_refused(self.check("accept-new=yes"), "“accept-new” takes no value")
        self.assert_refused(self.check("remount"), "unmount it first")
        self.assert_refused(self.check("uid=nobody-of-this-name"), "no user “nobody-of-this-name”")
        self.assert_refused(self.helper("sftp://nas", "/Volumes/NAS", "-z"), "-z")
        self.assert_refused(self.helper("sftp://nas"), "mount -t ombra URL /Volumes/NAME")
        self.assert_refused(self.check("rw", url="/dev/sda1"), "“/dev/sda1” is no URL")

    def test_lets_the_unknown_pass_when_mount_says_so(self):
        result = self.helper("sftp://nas", "/Volumes/NAS", "-f", "-s", "-o", "colour=blue")
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_a_mount_point_elsewhere_is_refused_with_what_to_do(self):
        self.assert_refused(self.check("rw", "/mnt/nas"), "“/mnt/nas”", "Use /Volumes/NAME", "ln -s /Volumes/NAME /mnt/nas")
        for path in ["/Volumes", "/Volumes/", "/Volumes/a/b", "/Volumes/..", "/Volumesx"]:
            self.assert_refused(self.check("rw", path), "/Volumes/NAME")
        self.assert_refused(self.check("name=Other"), "“Other” is mounted at /Volumes/Other, not at /Volumes/NAS")
        self.assertEqual(self.check("rw", "/Volumes/NAS//").returncode, 0)


class MountTest(unittest.TestCase):
    """What tests share that mount a folder of this machine."""

    def setUp(self):
        require_root(self)
        if not os.access("/dev/fuse", os.R_OK | os.W_OK):
            self.fail("this machine has no /dev/fuse")
        self.name = f"Ombra package {os.getpid()}"
        self.path = "/Volumes/" + self.name
        self.home = tempfile.mkdtemp(dir=WORK)
        self.environment = {"PATH": os.environ["PATH"], "HOME": self.home, "OMBRAFS_TMPDIR": self.home + "/t"}
        os.mkdir(self.home + "/t", 0o700)
        os.mkdir(self.home + "/shared")
        with open(self.home + "/shared/hello.txt", "w") as file:
            file.write("hello\n")
        self.addCleanup(self.end_bus)
        self.addCleanup(self.unmount)

    def end_bus(self):
        with contextlib.suppress(FileNotFoundError), open(self.home + "/t/bus.pid") as number:
            os.kill(int(number.read()), signal.SIGTERM)

    def unmount(self):
        if self.mounts():  # only this one: other tests may be running
            self.ombra("unmount", self.name)
            subprocess.run(["umount", "-l", self.path], stderr=subprocess.DEVNULL)
        with contextlib.suppress(FileNotFoundError):
            os.rmdir(self.path)

    def run_program(self, *words, user=None):
        # Through files: the message bus that the first command starts inherits what it is given.
        with tempfile.TemporaryFile("w+") as out, tempfile.TemporaryFile("w+") as err:
            code = subprocess.run([PREFIX + "/" + words[0], *words[1:]], env=self.environment, stdin=subprocess.DEVNULL,
                                  stdout=out, stderr=err, user=user, group=user).returncode
            out.seek(0)
            err.seek(0)
            return code, out.read(), err.read()

    def ombra(self, *words):
        return self.run_program("bin/ombra", *words)

    def url(self):
        return f"file://{self.home}/shared"

    def mounts(self):
        with open("/proc/self/mounts") as table:
            lines = [line.split() for line in table]
        return [line for line in lines if line[1].replace("\\040", " ") == self.path]

    def assert_mounted(self, options, below=0, kind="fuse.ombrafs"):
        mine = self.mounts()
        self.assertEqual(len(mine), 1 + below, mine)
        for option in options:
            self.assertIn(option, mine[-1][3].split(","))
        self.assertEqual(mine[-1][2], kind)
        if kind == "autofs":
            return  # looking at it would set it off
        with open(self.path + "/hello.txt") as file:
            self.assertEqual(file.read(), "hello\n")


class Mounting(MountTest):
    """The installed command and mount helper with a real mount."""

    def test_the_command_finds_its_helper_in_the_installed_tree(self):
        self.assertEqual(self.ombra("mount", "--name", self.name, self.url()), (0, self.path + "\n", ""))
        self.assert_mounted(["rw"])
        self.assertEqual(self.ombra("unmount", self.name)[0], 0)
        self.assertFalse(os.path.exists(self.path))

    def test_a_service_manager_is_told_when_the_volume_can_be_used(self):
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.bind(self.home + "/notify")
        manager.settimeout(30)
        manager.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        words = [PREFIX + "/bin/ombra", "mount", "--foreground", "--name=" + self.name, "--", self.url()]
        with open(self.home + "/out", "w") as out:
            command = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                       env={**self.environment, "NOTIFY_SOCKET": self.home + "/notify"})
        self.addCleanup(command.wait)
        self.addCleanup(command.kill)
        self.assertEqual(message_of(manager, command.pid), f"READY=1\nSTATUS=Mounted at {self.path}")
        self.assert_mounted(["rw"])
        command.send_signal(signal.SIGTERM)
        self.assertTrue(message_of(manager, command.pid).startswith("STOPPING=1\n"))
        self.assertEqual(command.wait(30), 0)
        self.assertFalse(os.path.ismount(self.path))

    def test_the_mount_helper_mounts_where_it_was_told_though_a_folder_is_there(self):
        os.mkdir(self.path)
        words = ["sbin/mount.ombra", self.url(), self.path, "-o", "ro,noexec,noatime"]
        self.assertEqual(self.run_program(*words), (0, "", ""))
        self.assert_mounted(["ro", "noexec", "noatime", "nosuid", "nodev"])
        with self.assertRaises(OSError):
            open(self.path + "/new.txt", "w")
        volumes = json.loads(self.ombra("list", "--json")[1])["volumes"]
        self.assertEqual([(v["volumeName"], v["mountPath"], v["state"]) for v in volumes if v["volumeName"] == self.name],
                         [(self.name, self.path, "mounted")])
        # A second mount would hide the first.
        code, _, words = self.run_program(*words)
        self.assertEqual(code, 32)
        self.assertIn("mounted at", words)
        # As with any file system: umount(8) takes it away, and the helper ends.
        helper = [v["pid"] for v in volumes if v["volumeName"] == self.name][0]
        process = os.pidfd_open(helper)
        subprocess.run(["umount", self.path], check=True)
        self.assertTrue(select_readable(process, 20), "the helper did not end")

    def test_the_mount_helper_mounts_over_an_automount_that_waits_there(self):
        os.mkdir(self.path)
        words = [PREFIX + "/sbin/mount.ombra", self.url(), self.path, "-o", "ro"]
        with open(self.home + "/automounter", "w") as errors:
            automounter = subprocess.Popen([sys.executable, SOURCE + "/tests/package/automounter.py", self.path, *words],
                                           env=self.environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                           stderr=errors, text=True)
        self.addCleanup(automounter.communicate)
        self.assertEqual(automounter.stdout.readline(), "ready\n")
        self.assert_mounted(["rw"], 0, "autofs")
        with open(self.path + "/hello.txt") as file:  # waits until the volume is there
            self.assertEqual(file.read(), "hello\n")
        self.assert_mounted(["ro"], below=1)
        volumes = json.loads(self.ombra("list", "--json")[1])["volumes"]
        process = os.pidfd_open([v["pid"] for v in volumes if v["mountPath"] == self.path][0])
        subprocess.run(["umount", self.path], check=True)
        self.assertTrue(select_readable(process, 20), "the helper did not end")
        os.close(process)
        automounter.communicate()
        self.assertEqual(self.mounts(), [])
        self.assertEqual(os.listdir(self.path), [])

    def test_the_mount_helper_removes_no_folder_that_holds_something(self):
        os.mkdir(self.path)
        open(self.path + "/mine", "w").close()
        code, out, err = self.run_program("sbin/mount.ombra", self.url(), self.path)
        self.assertEqual((code, out), (32, ""))
        self.assertIn("in the way", err)
        os.unlink(self.path + "/mine")

    def test_the_command_unmounts_what_the_mount_helper_has_mounted(self):
        self.assertEqual(self.run_program("sbin/mount.ombra", self.url(), self.path, "-o", "rw"), (0, "", ""))
        self.assert_mounted(["rw"])
        with open(self.path + "/new.txt", "w") as file:
            file.write("new\n")
        self.assertEqual(self.ombra("unmount", self.name)[0], 0)
        self.assertFalse(os.path.ismount(self.path))
        with open(self.home + "/shared/new.txt") as file:
            self.assertEqual(file.read(), "new\n")

    def test_a_mount_point_that_volumes_write_in_another_way_is_refused(self):
        # One letter and its dots in one character; volumes have two.
        composed = self.path + " \u00fc"
        code, out, err = self.run_program("sbin/mount.ombra", self.url(), composed)
        self.assertEqual((code, out), (1, ""))
        self.assertIn("u\u0308", err)
        self.path += " u\u0308"
        self.assertEqual(self.mounts(), [])
        self.assertFalse(os.path.exists(composed))

    def test_what_the_command_refuses_is_told_and_nothing_is_mounted(self):
        code, out, err = self.run_program("sbin/mount.ombra", "file:///nonexistent/folder", self.path)
        self.assertEqual((code, out), (32, ""))
        self.assertIn("/nonexistent/folder", err)
        self.assertFalse(os.path.exists(self.path))


class Repair(MountTest):
    """The helper looks after its bundle before it mounts: in the installed tree, whose parts are put back afterwards."""

    LOADER = property(lambda self: f"{PREFIX}/{COMPONENTS}/load_drelfs")
    EXTENSION = property(lambda self: f"{PREFIX}/{COMPONENTS}/ombradiskfs.kext")

    def setUp(self):
        super().setUp()
        self.addCleanup(self.put_back)

    def put_back(self):
        if os.path.exists(self.LOADER + ".away"):
            os.rename(self.LOADER + ".away", self.LOADER)
        for path in [self.EXTENSION, self.LOADER]:
            os.chown(path, 0, 0)
        os.chmod(self.EXTENSION, 0o755)
        os.chmod(self.LOADER, 0o4755)

    def state(self):
        return [(os.stat(path).st_uid, os.stat(path).st_gid, stat.S_IMODE(os.stat(path).st_mode))
                for path in [self.EXTENSION, self.LOADER]]

    def mount(self):
        return self.ombra("mount", "--name", self.name, self.url())

    def test_a_bundle_that_lost_its_rights_is_repaired(self):
        os.chown(self.EXTENSION, 65534, 0)
        os.chmod(self.EXTENSION, 0o777)
        os.chown(self.LOADER, 0, 65534)  # which takes the set-user-ID bit away
        self.assertEqual(self.mount(), (0, self.path + "\n", ""))
        self.assertEqual(self.state(), [(0, 0, 0o755), (0, 0, 0o4755)])

    def test_an_extension_that_others_may_write_is_left_as_it_is(self):
        os.chmod(self.EXTENSION, 0o777)
        self.assertEqual(self.mount()[0], 0)
        self.assertEqual(self.state(), [(0, 0, 0o777), (0, 0, 0o4755)])

    def test_a_missing_part_is_told_with_what_to_do(self):
        os.rename(self.LOADER, self.LOADER + ".away")
        code, out, err = self.mount()
        self.assertEqual((code, out), (6, ""))
        self.assertIn(f"A part of the program is missing: {self.LOADER}", err)
        self.assertIn("Install the program again.", err)

    def test_somebody_without_rights_is_told_what_root_has_to_do(self):
        os.chmod(self.LOADER, 0o755)
        for folder in [self.home, self.home + "/t"]:
            os.chown(folder, 65534, 65534)
        code, out, err = self.run_program("bin/ombra", "mount", "--name", self.name, self.url(), user=65534)
        self.assertEqual((code, out), (6, ""))
        self.assertIn("could not be run with administrator rights", err)
        self.assertIn(f"run as root: /usr/bin/chown -h -R -P -- root:0 {self.EXTENSION}", err)
        self.assertEqual(self.state()[1], (0, 0, 0o755))

    def mount_and_unmount_as_nobody(self, rights):
        """By a user without rights of their own, in a mount namespace whose files in /etc, /run and /dev are its own. `rights` are
        the lines of a script that make those; what is written there is gone afterwards."""
        for folder in [self.home, self.home + "/t"]:
            os.chown(folder, 65534, 65534)
        script = f"""
            set -e
            mount -t tmpfs none /run
            mount -t tmpfs -o mode=755 none /dev
            mknod -m 666 /dev/null c 1 3
            mknod -m 666 /dev/urandom c 1 9
            mknod -m 666 /dev/fuse c 10 229
            {rights}
            as_nobody() {{ /usr/bin/setpriv --reuid 65534 --regid 65534 --clear-groups -- "$@"; }}
            as_nobody "$0" mount --name "{self.name}" "{self.url()}"
            as_nobody cat "{self.path}/hello.txt"
            as_nobody "$0" unmount "{self.name}"
        """
        with tempfile.TemporaryFile("w+") as out:
            code = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c", script, PREFIX + "/bin/ombra"],
                                  env=self.environment, stdin=subprocess.DEVNULL, stdout=out, stderr=out).returncode
            out.seek(0)
            return code, out.read()

    def damage(self):
        os.chown(self.EXTENSION, 65534, 65534)
        os.chmod(self.EXTENSION, 0o777)
        os.chown(self.LOADER, 65534, 65534)

    def test_sudo_repairs_for_somebody_with_the_right_rule(self):
        require_tool(self, "sudo")
        self.damage()
        code, text = self.mount_and_unmount_as_nobody("""
            mount -t tmpfs -o mode=755 none /etc/sudoers.d
            echo 'nobody ALL=(root) NOPASSWD: /usr/bin/chown, /usr/bin/chmod' >/etc/sudoers.d/test
            chmod 440 /etc/sudoers.d/test
        """)
        self.assertEqual((code, text.splitlines()[:2]), (0, [self.path, "hello"]), text)
        self.assertEqual(self.state(), [(0, 0, 0o755), (0, 0, 0o4755)])

    def test_pkexec_repairs_for_somebody_who_may_do_that_and_nothing_else(self):
        for tool in ["pkexec", "pkaction", "dbus-daemon"]:
            require_tool(self, tool)
        self.damage()
        with open(PREFIX + "/share/polkit-1/actions/org.ombrafs.policy") as action, \
                open(self.home + "/action", "w") as here:
            here.write(action.read().replace("/usr/libexec/", PREFIX + "/libexec/"))
        # On a system bus of its own, which starts the authority, and takes it along when it ends.
        code, text = self.mount_and_unmount_as_nobody(f"""
            mkdir /run/dbus
            mount -t tmpfs -o mode=755 none /usr/share/polkit-1/actions
            install -m 644 {self.home}/action /usr/share/polkit-1/actions/org.ombrafs.policy
            mount -t tmpfs -o mode=755 none /etc/polkit-1
            mkdir -m 755 /etc/polkit-1/rules.d
            cat >/etc/polkit-1/rules.d/10.rules <<'END'
polkit.addRule(function(action, subject) {{
  return action.id == "org.ombrafs.repair" && subject.user == "nobody" ? polkit.Result.YES : polkit.Result.NO;
}});
END
            bus=$(dbus-daemon --system --fork --print-pid --nopidfile 2>/dev/null)
            trap 'kill $bus' EXIT
            pkaction --verbose --action-id org.ombrafs.repair
        """)
        self.assertEqual((code, text.split("\n")[-3:-1]), (0, [self.path, "hello"]), text)
        self.assertIn("Authentication is required to repair the components of Ombra", text)
        self.assertIn("implicit active:   auth_admin_keep", text)
        self.assertEqual(self.state(), [(0, 0, 0o755), (0, 0, 0o4755)])

    def test_the_program_that_pkexec_runs_takes_the_four_steps_alone(self):
        program = PREFIX + "/libexec/ombrafs/repair_drelfs"
        chown, chmod = ["/usr/bin/chown", "-h", "-R", "-P", "--", "root:0"], ["/usr/bin/chmod"]
        self.damage()
        for words in [[], ["/bin/sh"], ["/usr/bin/chown", "root:0", self.LOADER], chown + [WORK], chown,
                      chown + [self.LOADER, WORK], chmod + ["-R", "--", "u+s", self.LOADER],
                      chmod + ["--", "u+s", self.EXTENSION], chown + [self.LOADER + "/"],
                      chown + [PREFIX + "/libexec/ombrafs/../ombrafs" + self.LOADER[len(PREFIX + "/libexec/ombrafs"):]]]:
            result = subprocess.run([program, *words], capture_output=True, text=True)
            self.assertEqual((result.returncode, result.stdout), (2, ""), words)
            self.assertIn("only the steps that repair", result.stderr)
        for words in [chown + [self.EXTENSION], chmod + ["-R", "--", "go-w", self.EXTENSION], chown + [self.LOADER],
                      chmod + ["--", "u+s", self.LOADER]]:
            self.assertEqual(output(program, *words), "")
        self.assertEqual(self.state(), [(0, 0, 0o755), (0, 0, 0o4755)])


def message_of(manager, process):
    """The next message of that process; what a message bus says that it started does not count, as with systemd."""
    while True:
        data, ancillary, _, _ = manager.recvmsg(4096, socket.CMSG_SPACE(12))
        if struct.unpack("iii", ancillary[0][2])[0] == process:
            return data.decode()


def select_readable(descriptor, seconds):
    return bool(select.select([descriptor], [], [], seconds)[0])


if __name__ == "__main__":
    unittest.main()
