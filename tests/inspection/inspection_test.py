# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Looks into a process, and into a core file of it, with what is installed for that. Arguments: the
inspected program, the prefix of the installation, the library's folder in it, and then unittest's.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PROGRAM, PREFIX, LIBRARY_FOLDER = (pathlib.Path(each) for each in sys.argv[1:4])
SHARED = PROGRAM.name.endswith("shared")
CANNOT_TELL = 77

SOURCE = (pathlib.Path(__file__).parent / "inspected.cpp").resolve()
DUMP = PREFIX / "bin" / "sorvane-dump"
PRINTERS = PREFIX / "share" / "sorvane-signals" / "sorvane-signals-gdb.py"
ENVIRONMENT = {**os.environ, "LC_ALL": "C", "LD_LIBRARY_PATH": str(PREFIX / LIBRARY_FOLDER)}

USUAL = "registered, SA_ONSTACK|SA_RESTART, mask: none"
UNNAMED = "(anonymous namespace)::unnamed(int, siginfo_t*, void*)"
STATE = """Managers: 3
Handling signals: yes
Lock: {lock}
Dispositions: may handle all signals from 1 to 60 but: SIGKILL, SIGUSR2, SIGSTOP, 32, 33
SIGHUP (1), taken over
    onHangup(int){onHangup}, external, not valid, SA_NODEFER, mask: SIGALRM, SIGRTMIN+2
SIGINT (2), not taken over
    {name}{unnamed}, registered, SA_SIGINFO|SA_ONSTACK|SA_RESTART, mask: none
SIGUSR1 (10), taken over
    main::{{lambda(int)#1}}::_FUN(int){lambda}, {usual}
SIGALRM (14), taken over
    onAlarm(int){onAlarm}, subscription 0, SA_SIGINFO|SA_ONSTACK|SA_RESTART, mask: none
SIGTERM (15), taken over
    ofHost(int){ofHost}, pre-existing, external, SA_RESTART, mask: SIGTERM
    ofGuest(int){ofGuest}, {usual}
"""
WRITTEN = """Managers: 3
Handling signals: yes
SIGHUP (1)
    onHangup(int){onHangup}, external, not valid
SIGINT (2)
    {name}{unnamed}, registered
SIGUSR1 (10)
    main::{{lambda(int)#1}}{lambda}, registered
SIGALRM (14)
    subscription 0{subscription}, registered
SIGTERM (15)
    ofHost(int){ofHost}, pre-existing, external
    ofGuest(int){ofGuest}, registered
"""


def line_of(function):
    what = "[](int)" if function == "lambda" else f"void {function}("
    return next(number for number, line in enumerate(SOURCE.read_text().splitlines(), 1)
                if what in line)


def filled(text, place, **others):
    """A text in which each function's place is known by the line that it begins in."""
    places = {function: place.format(line=line_of(function))
              for function in ("onHangup", "unnamed", "lambda", "onAlarm", "ofHost", "ofGuest")}
    return text.format(name=UNNAMED, usual=USUAL, **places, **others)


def lines(text):
    """The order of a signal's handlers follows from their addresses."""
    return sorted(text.splitlines())


def gdb(*commands, arguments=()):
    printers = ("-iex", f"add-auto-load-safe-path {PREFIX}") if SHARED else ("-x", str(PRINTERS))
    each = [part for command in commands for part in ("-ex", command)]
    return subprocess.run(
        ["gdb", "-nx", "--batch", "-iex", "set debuginfod enabled off", "-iex", "set width 0",
         *printers, *each, PROGRAM, *arguments],
        env=ENVIRONMENT, check=True, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT).stdout


def sorvane_dump(*arguments, text=None):
    return subprocess.run([DUMP, *arguments], env=ENVIRONMENT, check=False, text=True, input=text,
                          capture_output=True)


class Gdb(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.core = f"{cls.folder.name}/core"
        cls.dump = f"{cls.folder.name}/dump"
        cls.output = gdb(
            "set breakpoint pending on",
            "break Sorvane::operator<<(std::ostream&, Sorvane::SVSignalHandler const&)",
            f"run < /dev/null > {cls.dump}", "echo \\n[locked]\\n", "info sorvane",
            "echo [free]\\n", "delete", "break waitForEndOfInput", "continue", "up",
            "echo [state]\\n", "info sorvane", "echo [record]\\n", "print record",
            "echo [manager]\\n", "print quiet", "echo [raw]\\n", "print/r record",
            "set language c", "echo [in C]\\n", "info sorvane", "echo [language]\\n",
            "show language", "set language auto",
            "echo [misuse]\\n", "info sorvane 1", f"generate-core-file {cls.core}")

    def part(self, name):
        self.assertIn(f"[{name}]\n", self.output)
        return self.output.partition(f"[{name}]\n")[2].partition("\n[")[0] + "\n"

    def state(self, lock):
        return filled(STATE, " at inspected.cpp:{line}", lock=lock)

    def test_state_of_a_live_process(self):
        self.assertEqual(lines(self.part("state")), lines(self.state("free")))

    def test_state_of_a_process_that_stands_in_another_language(self):
        self.assertEqual(lines(self.part("in C")), lines(self.state("free")))
        self.assertIn('The current source language is "c".', self.part("language"))

    def test_who_holds_the_lock(self):
        self.assertEqual(lines(self.part("locked")), lines(self.state("held by thread 1, depth 1")))

    def test_state_in_a_core_file(self):
        output = gdb("echo \\n[core]\\n", "info sorvane", arguments=[self.core])
        self.assertEqual(lines(output.partition("[core]\n")[2]), lines(self.state("free")))

    def test_record(self):
        self.assertEqual(self.part("record"), "$1 = SIGHUP: onHangup(int) at inspected.cpp:"
                         f"{line_of('onHangup')}, external, not valid, SA_NODEFER, mask: SIGALRM, "
                         "SIGRTMIN+2\n")

    def test_manager_with_its_tables(self):
        shown = self.part("manager")
        self.assertTrue(shown.startswith(
            "$2 = manager that does not lock = {numberOfManagers = 3, currentlyHandlingSignals = "
            "true, handlerTableLock = free, signalDispositionSet = may handle all signals from 1 "
            "to 60 but: SIGKILL, SIGUSR2, SIGSTOP, 32, 33, handlerTables = SVHashTable with 5 of 8 "
            "slots in use and 0 deleted = {"), shown)
        self.assertRegex(shown, r"\[SIGUSR1\] = SVHashTable with 1 of 8 slots in use and 1 deleted "
                         r"= \{\[0x\w+ <_FUN\(int\)>\] = SIGUSR1: main::")

    def test_raw_record(self):
        self.assertRegex(self.part("raw"), "m_signalNumber = 1, m_osRecord = ")

    def test_misuse(self):
        self.assertIn("info sorvane takes no argument.\n", self.part("misuse"))

    def test_without_a_process(self):
        result = subprocess.run(["gdb", "-nx", "--batch", "-x", PRINTERS, "-ex", "info sorvane"],
                                check=False, text=True, capture_output=True)
        self.assertIn("The state of Sorvane signals can't be read: it takes a process or a core "
                      "file, and the library's debug information", result.stderr)

    def test_dump_with_the_core_file(self):
        result = sorvane_dump("--core", self.core, self.dump)
        self.assertEqual(result.stderr, "")
        self.assertIn(f"    ofGuest(int) at {SOURCE}:{line_of('ofGuest')}, in {PROGRAM.name}+0x",
                      result.stdout)


class Dump(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.process = subprocess.Popen([PROGRAM], env=ENVIRONMENT, stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, text=True)
        cls.dump = ""
        while not cls.dump.endswith("</SVSignalHandlerManager>"):
            byte = cls.process.stdout.read(1)
            assert byte, cls.dump
            cls.dump += byte

    @classmethod
    def tearDownClass(cls):
        cls.process.communicate()

    def check(self, result, form):
        self.assertEqual(result.stderr, "")
        self.assertEqual(result.returncode, 0)
        written = re.sub(r"\+0x[0-9a-f]+", "+OFFSET", result.stdout)
        subscription = f", in{form.partition(', in')[2]}"
        expected = filled(WRITTEN, form, subscription=subscription)
        self.assertEqual(lines(written), lines(expected))

    def check_all(self, *arguments):
        self.check(sorvane_dump(*arguments, text=self.dump),
                   f" at {SOURCE}:{{line}}, in {PROGRAM.name}+OFFSET")

    def test_names_by_the_process(self):
        self.check_all("--pid", str(self.process.pid))

    def test_names_by_a_copy_of_its_maps(self):
        with tempfile.NamedTemporaryFile("w") as maps:
            maps.write(pathlib.Path(f"/proc/{self.process.pid}/maps").read_text())
            maps.flush()
            self.check_all("--maps", maps.name)

    def test_the_program_is_gone(self):
        with tempfile.NamedTemporaryFile("w") as maps:
            text = pathlib.Path(f"/proc/{self.process.pid}/maps").read_text()
            maps.write(text.replace(str(PROGRAM), "/gone"))
            maps.flush()
            result = sorvane_dump("--maps", maps.name, text=self.dump)
        self.assertEqual(result.stderr, "sorvane-dump: /gone: there is no such file any more\n")
        self.assertRegex(result.stdout, r"\n    unknown function, in ")

    def test_names_by_the_program_alone(self):
        self.check_all("--module", str(PROGRAM))

    def test_names_of_a_stripped_program_by_one_that_is_not(self):
        self.check(sorvane_dump("--module", f"another={PROGRAM}",
                                text=self.dump.replace(f">{PROGRAM.name}+", ">another+")),
                   f" at {SOURCE}:{{line}}, in another+OFFSET")

    def test_without_the_program(self):
        result = sorvane_dump(text=self.dump)
        self.assertEqual(result.returncode, 0)
        self.assertRegex(result.stdout, rf"\n    unknown function, in {PROGRAM.name}\+0x\w+, "
                         r"pre-existing, external\n")
        self.assertIn("--module, --pid or --core may find the names", result.stderr)

    def check_told(self, what, *arguments):
        result = sorvane_dump(*arguments, text=self.dump)
        self.assertEqual((result.returncode, result.stderr), (0, f"sorvane-dump: {what}\n"))
        self.assertRegex(result.stdout, rf"\n    unknown function, in {PROGRAM.name}\+0x")

    def test_a_module_that_is_none_is_told(self):
        self.check_told(f"{SOURCE}: this is no program or shared library",
                        "--module", f"{PROGRAM.name}={SOURCE}")

    def test_a_module_that_the_dump_does_not_name_is_told(self):
        self.check_told("other: the dump names no such module", "--module", f"other={PROGRAM}")

    def test_a_module_without_names_is_told(self):
        with tempfile.TemporaryDirectory() as folder:
            stripped = f"{folder}/stripped"
            subprocess.run(["strip", "--strip-all", "-o", stripped, PROGRAM], check=True)
            self.check_told(f"{stripped}: it has no names for some functions; is it stripped?",
                            "--module", f"{PROGRAM.name}={stripped}")

    def test_json(self):
        result = sorvane_dump("--json", "--module", str(PROGRAM), text=self.dump + "\n" + self.dump)
        first, second = (json.loads(line) for line in result.stdout.splitlines())
        self.assertEqual(first, second)
        self.assertEqual((first["numberOfManagers"], first["currentlyHandlingSignals"]), (3, True))
        self.assertEqual([each["name"] for each in first["signals"]],
                         ["SIGHUP", "SIGINT", "SIGUSR1", "SIGALRM", "SIGTERM"])
        hangup = first["signals"][0]["handlers"][0]
        self.assertEqual(hangup.pop("address"), re.search("<K>(.*)</K>", self.dump)[1])
        self.assertRegex(hangup.pop("offset"), "^0x")
        self.assertEqual(hangup, {
            "function": "onHangup(int)", "arguments": 1, "module": PROGRAM.name,
            "path": str(PROGRAM), "file": str(SOURCE), "line": line_of("onHangup"),
            "preExists": False, "external": True, "valid": False})

    def test_dump_inside_a_log(self):
        log = "starting\n" + re.sub("^", "host app[1]: ", self.dump, flags=re.MULTILINE) + "\nend\n"
        self.assertEqual(sorvane_dump(text=log).stdout, sorvane_dump(text=self.dump).stdout)

    def test_special_values_and_named_functions(self):
        record = re.search("<SVSignalHandler>.*", self.dump)[0]
        dump = self.dump.replace(record, re.sub("<function>.*</module>",
                                                "<function>SIG_IGN</function>", record))
        self.assertIn("\n    SIG_IGN, external, not valid\n", sorvane_dump(text=dump).stdout)
        dump = self.dump.replace(record, record.replace("unknown", "f(std::list&lt;int&gt;)"))
        self.assertIn("\n    f(std::list<int>), in ", sorvane_dump(text=dump).stdout)

    def check_refused(self, what, *arguments, text="", status=1):
        result = sorvane_dump(*arguments, text=text)
        self.assertEqual((result.returncode, result.stdout), (status, ""))
        self.assertRegex(result.stderr, rf"\Asorvane-dump: [^\n]*{what}[^\n]*\n\Z")

    def test_a_full_disk_is_told(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = subprocess.run([DUMP], check=False, text=True, input=self.dump, stdout=full,
                                    stderr=subprocess.PIPE)
        self.assertEqual(result.stderr, "sorvane-dump: standard output: No space left on device\n")
        self.assertEqual(result.returncode, 1)

    def test_misuse(self):
        self.check_refused("there is no dump in it")
        self.check_refused("a dump breaks off", text=self.dump[:300])
        self.check_refused("the dump is damaged", text=self.dump.replace("</K>", ""))
        self.check_refused("nowhere: No such file", "nowhere")
        self.check_refused("nowhere: there is no such file", "--core", "nowhere")
        self.check_refused("nowhere: this is no file", "-m", "nowhere", status=2)
        self.check_refused("not allowed with", "--core", "x", "--pid", "1", status=2)
        self.check_refused("unrecognized arguments: --nix", "--nix", status=2)
        self.check_refused("there is no such process", "--pid", "-1")
        with subprocess.Popen(["sleep", "60"]) as other:
            self.check_refused("the dump is of another process", "--pid", str(other.pid),
                               text=self.dump)
            other.kill()
        self.check_refused("the dump is of another process", "--pid", str(self.process.pid),
                           text=self.dump.replace("+0x", "+0x1"))


if __name__ == "__main__":
    if "Gdb" in sys.argv[4:] and shutil.which("gdb") is None:
        print("skipped: gdb is not installed")
        sys.exit(CANNOT_TELL)
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
