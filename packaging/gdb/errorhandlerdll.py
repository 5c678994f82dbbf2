"""gdb for processes, living or dumped as a core file, that use libErrorHandlerDll.so: the lines that its log still holds in
memory, the last error, and codes and exceptions as their names. Needs the library's debug symbols, with which gdb loads it.
"""

import gdb
import gdb.printing

# All that is taken from the library's inside.
OUTPUT = "gLoggerStorage.m_logger.m_output"
BUFFER, USED, WRITTEN, CLAIM = "m_buffer", "m_used", "m_written", "m_claim"
FILE, NAMES, NAME_IN_USE, NAME_TEXT = "m_file", "m_names", "m_nameInUse", "m_text"
BY_FLUSH = 0xFFFFFFFF


def _evaluate(expression):
    try:
        return gdb.parse_and_eval(expression)
    except gdb.error as error:
        raise gdb.GdbError(f"libErrorHandlerDll.so is not loaded, or its debug symbols (package liberrorhandlerdll-dbgsym) "
                           f"are missing: {error}") from error


def _bytes(value, length):
    return gdb.selected_inferior().read_memory(value.address, length).tobytes() if length else b""


def _number(value):
    """Of a plain or atomic integer, whatever the standard library makes of the latter."""
    return int.from_bytes(_bytes(value, value.type.sizeof), "little")


def _text(value):
    return value.string("utf-8", errors="backslashreplace")


class ErrorHandlerDll(gdb.Command):
    """Commands for libErrorHandlerDll.so."""

    def __init__(self):
        super().__init__("errorhandlerdll", gdb.COMMAND_DATA, prefix=True)


class Tail(gdb.Command):
    """Shows the lines that were logged and are not in the log file yet: they wait in memory for the next flush.
errorhandlerdll tail"""

    def __init__(self):
        super().__init__("errorhandlerdll tail", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        _evaluate("gLoggerStorage")
        try:
            output = gdb.parse_and_eval(OUTPUT)
            name = _text(output[FILE][NAMES][_number(output[FILE][NAME_IN_USE])][NAME_TEXT])
            used, written, claim = (_number(output[member]) for member in (USED, WRITTEN, CLAIM))
            claimed = claim & BY_FLUSH
            flushing = claimed == BY_FLUSH
            lines = _bytes(output[BUFFER], used)[written if flushing else claimed:]
        except gdb.error as error:
            raise gdb.GdbError(f"the log cannot be read; is this script of the library's version? {error}") from error
        gdb.write(f"{len(lines)} bytes are not in {name} yet{':' if lines else ''}\n")
        if lines and flushing:
            gdb.write("(They were being written: the first of them may be in the file, too.)\n")
        gdb.write(lines.decode("utf-8", "backslashreplace"))


class LastError(gdb.Command):
    """Shows the error that was last handled at a boundary, its code and its text.
errorhandlerdll last-error"""

    def __init__(self):
        super().__init__("errorhandlerdll last-error", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        code = _evaluate("'ExceptionHandler::m_lastErrorCode'")
        text = _evaluate("'ExceptionHandler::m_lastErrorString'")
        gdb.write(f"{code.format_string()}: {_text(text)}\n")


class CodePrinter:
    """An error code by its name, or by its kind where a host makes the codes."""

    def __init__(self, value):
        self._value = value

    def to_string(self):
        code = int(self._value)
        for field in gdb.types.get_basic_type(self._value.type).fields():
            if field.enumval == code:
                return f"{field.name} ({code})"
        number = code & 0xFFFFFFFF
        kind = "custom" if 0x10000 <= number <= 0x1FFFF else "structured" if number > 0xC0000000 else "invalid"
        return f"{kind} error {number:#x}"


class ExceptionPrinter:
    """A HalvikException. Its texts have 512 bytes each, of which the first few are the text."""

    def __init__(self, value):
        self._value = value

    def to_string(self):
        return "HalvikException"

    def children(self):
        yield "code", self._value["m_errorCode"]
        yield "message", f'"{_text(self._value["m_errorString"])}"'
        yield "location", f'"{_text(self._value["m_locationString"])}"'
        yield "handled", self._value["m_handled"]


def _register():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("errorhandlerdll")
    printers.add_printer("ZelvoReaderErrorCode", "^ZelvoReaderErrorCode$", CodePrinter)
    printers.add_printer("HalvikException", "^HalvikException$", ExceptionPrinter)
    gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)
    for command in (ErrorHandlerDll, Tail, LastError):
        command()


_register()
