# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""What gdb shows of Sorvane signals: the handler records, the tables, the dispositions, the lock
and the managers in words, and with "info sorvane" the whole state of the process. It only reads
memory, so a core file will do. "print/r" shows an object as it is.
"""

import os
import re
import signal

import gdb
import gdb.printing

MANAGER = "Sorvane::SVSignalHandlerManager"
HIGHEST_SIGNAL = 60
OCCUPIED = 1
FLAGS = {0x1: "SA_NOCLDSTOP", 0x2: "SA_NOCLDWAIT", 0x4: "SA_SIGINFO", 0x08000000: "SA_ONSTACK",
         0x10000000: "SA_RESTART", 0x40000000: "SA_NODEFER", 0x80000000: "SA_RESETHAND"}
# Where the standard libraries keep the value of an atomic object.
ATOMIC_MEMBERS = ("_M_i", "_M_b", "_M_p", "__a_", "__a_value")
# What is on record for a subscription, and where its handler is.
ENTRY = re.compile(r"(?:void )?Sorvane::\(anonymous namespace\)::entry<(\d+)u?>\(")
ENTRIES = "'Sorvane::(anonymous namespace)::slots'"


def evaluate(expression):
    """Its value in C++: a process mostly stops in a function of the C library."""
    language = gdb.parameter("language")
    gdb.execute("set language c++", to_string=True)
    try:
        return gdb.parse_and_eval(expression)
    finally:
        gdb.execute(f"set language {language}", to_string=True)


def plain(atomic):
    """The value inside an atomic object."""
    while atomic.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        for member in ATOMIC_MEMBERS:
            try:
                atomic = atomic[member]
                break
            except gdb.error:
                continue
        else:
            raise gdb.error(f"unknown kind of atomic object: {atomic.type}")
    return atomic


def signal_name(number):
    if signal.SIGRTMIN <= number <= signal.SIGRTMAX:
        return f"SIGRTMIN+{number - signal.SIGRTMIN}"
    try:
        return signal.Signals(number).name
    except ValueError:
        return str(number)


def listed(numbers):
    return ", ".join(signal_name(number) for number in numbers) or "none"


def function_name(address):
    """By the symbol table, which has static functions too."""
    if address in (0, 1):
        return ("SIG_DFL", "SIG_IGN")[address]
    found = gdb.execute(f"info symbol {address:#x}", to_string=True)
    name, section, _ = found.partition(" in section ")
    return name if section else f"{address:#x}"


def function_text(address):
    """Its name, and where it begins in the source if that is known."""
    name = function_name(address)
    line = gdb.find_pc_line(address) if address > 1 else None
    if line and line.symtab:
        name += f" at {os.path.basename(line.symtab.filename)}:{line.line}"
    return name


def subscription_text(entry):
    handler = int(plain(evaluate(ENTRIES)[entry]["handler"]))
    what = f"subscription {entry}"
    return f"{function_text(handler)}, {what}" if handler else f"{what}, which has ended"


def flags_text(flags):
    return "|".join(name for bit, name in FLAGS.items() if flags & bit) or "no flags"


def masked(mask):
    """The signals of a sigset_t."""
    words = mask["__val"]
    bits = 8 * words.type.target().sizeof
    return [1 + bit for bit in range(64) if int(words[bit // bits]) >> bit % bits & 1]


def record_text(record):
    """What a handler record says, but for its signal."""
    action = record["m_osRecord"]
    address = int(action["__sigaction_handler"]["sa_handler"])
    marks = [word for member, word in (("m_preExists", "pre-existing"), ("m_external", "external"))
             if record[member]]
    entry = ENTRY.match(function_name(address))
    if entry:
        function = subscription_text(int(entry[1]))
    else:
        function = function_text(address)
        marks = marks or ["registered"]
    if not record["m_valid"]:
        marks.append("not valid")
    return (f"{', '.join([function, *marks])}, {flags_text(int(action['sa_flags']))}, "
            f"mask: {listed(masked(action['sa_mask']))}")


def occupied_slots(table):
    entries = table["table"]
    for index in range(int(table["mask"]) + 1):
        if int(entries[index]["state"]) == OCCUPIED:
            yield entries[index]


class RecordPrinter:
    def __init__(self, record):
        self.record = record

    def to_string(self):
        number = int(self.record["m_signalNumber"])
        return f"{signal_name(number)}: {record_text(self.record)}"


class TablePrinter:
    """The outer table of the manager is shown with the inner ones that it points to."""

    def __init__(self, table):
        self.table = table
        value = table.type.strip_typedefs().template_argument(1).strip_typedefs()
        self.outer = (value.code == gdb.TYPE_CODE_PTR and
                      str(value.target().strip_typedefs()).startswith("Sorvane::SVHashTable<"))

    def whole(self):
        """A table whose constructor has not run yet has anything in its fields."""
        mask, used, fill = (int(self.table[member]) for member in ("mask", "used", "fill"))
        return mask & (mask + 1) == 0 and used <= fill <= mask

    def to_string(self):
        if not self.whole():
            return "SVHashTable, not initialised"
        used, fill = int(self.table["used"]), int(self.table["fill"])
        return (f"SVHashTable with {used} of {int(self.table['mask']) + 1} slots in use and "
                f"{fill - used} deleted")

    def children(self):
        for index, entry in enumerate(occupied_slots(self.table) if self.whole() else ()):
            key, value = entry["key"], entry["value"]
            if self.outer:
                key = signal_name(int(key) + 1)
                value = value.dereference() if value else "no table"
            yield f"key {index}", key
            yield f"value {index}", value

    def display_hint(self):
        return "map"


class DispositionsPrinter:
    def __init__(self, dispositions):
        self.dispositions = dispositions

    def to_string(self):
        answers = int(plain(self.dispositions["m_answers"]))
        yes, no = [], []
        for number in range(1, HIGHEST_SIGNAL + 1):
            (yes if answers >> number & 1 else no).append(number)
        if len(yes) < len(no):
            return f"may handle: {listed(yes)}"
        return f"may handle all signals from 1 to {HIGHEST_SIGNAL} but: {listed(no)}"


class LockPrinter:
    def __init__(self, lock):
        self.lock = lock

    def to_string(self):
        holder = plain(self.lock["m_holder"])
        if not int(holder):
            return "free"
        return f"held by {self.thread(holder)}, depth {int(self.lock['m_timesHeld'])}"

    @staticmethod
    def thread(handle):
        try:
            found = gdb.selected_inferior().thread_from_handle(handle)
        except gdb.error:
            found = None
        return f"thread {found.num}" if found else f"a thread with the handle {int(handle):#x}"


class State:
    """What all managers of the process share."""

    def __init__(self):
        def shared(member):
            return evaluate(f"{MANAGER}::{member}")

        try:
            self.managers = int(shared("numberOfManagers"))
            self.handling = bool(shared("currentlyHandlingSignals"))
            self.dispositions = shared("signalDispositionSet")
            self.tables = self.behind(shared("handlerTables"))
            self.lock = self.behind(shared("handlerTableLock"))
        except gdb.error as error:
            raise gdb.GdbError(
                "The state of Sorvane signals can't be read: it takes a process or a core file, "
                f"and the library's debug information ({error}).") from error

    @staticmethod
    def behind(pointer):
        return pointer.dereference() if pointer else None

    def members(self):
        yield "numberOfManagers", self.managers
        yield "currentlyHandlingSignals", self.handling
        yield "handlerTableLock", "none" if self.lock is None else self.lock
        yield "signalDispositionSet", self.dispositions
        yield "handlerTables", "none" if self.tables is None else self.tables

    def records(self):
        """Each signal that has a table, with its records, in the order of the signals."""
        slots = [] if self.tables is None else occupied_slots(self.tables)
        for key, table in sorted((int(slot["key"]), slot["value"]) for slot in slots):
            yield key + 1, [slot["value"] for slot in occupied_slots(table)] if table else []

    @staticmethod
    def owner(number):
        """Whose the signal is: its count is odd while it is the library's."""
        try:
            count = int(plain(evaluate(f"Sorvane::SVOwnership::counts[{number}]")))
        except gdb.error:
            return ""
        return ", taken over" if count % 2 else ", not taken over"


class ManagerPrinter:
    """A manager, which has but a flag of its own, and the state that it stands for. Only the
    library itself has all of the debug information of the class.
    """

    def __init__(self, manager):
        self.manager = manager
        self.known = bool(manager.type.strip_typedefs().fields())

    def to_string(self):
        if not self.known:
            return "manager, without the library's debug information"
        return f"manager that {'locks' if self.manager['m_locking'] else 'does not lock'}"

    def children(self):
        return State().members() if self.known else iter(())


class InfoSorvane(gdb.Command):
    """Show the managers, the lock, the dispositions and the handlers of Sorvane signals.
Usage: info sorvane"""

    def __init__(self):
        super().__init__("info sorvane", gdb.COMMAND_STATUS)

    def invoke(self, argument, from_tty):
        if argument:
            raise gdb.GdbError("info sorvane takes no argument.")
        state = State()
        print(f"Managers: {state.managers}")
        print(f"Handling signals: {'yes' if state.handling else 'no'}")
        print(f"Lock: {'none' if state.lock is None else LockPrinter(state.lock).to_string()}")
        print(f"Dispositions: {DispositionsPrinter(state.dispositions).to_string()}")
        for number, records in state.records():
            print(f"{signal_name(number)} ({number}){state.owner(number)}")
            for record in records:
                print(f"    {record_text(record)}")
            if not records:
                print("    no handler")


def printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("sorvane-signals")
    for name, pattern, printer in (
            ("SVSignalHandler", r"^Sorvane::SVSignalHandler$", RecordPrinter),
            ("SVHashTable", r"^Sorvane::SVHashTable<.*>$", TablePrinter),
            ("SVSignalHandlerDispositionSet", r"^Sorvane::SVSignalHandlerDispositionSet$",
             DispositionsPrinter),
            ("SVMutexHandle", r"^Sorvane::SVMutexHandle$", LockPrinter),
            ("SVSignalHandlerManager", r"^Sorvane::SVSignalHandlerManager$", ManagerPrinter)):
        collection.add_printer(name, pattern, printer)
    return collection


# For every program, because a static library has no file of its own there.
gdb.printing.register_pretty_printer(None, printers(), replace=True)
InfoSorvane()
