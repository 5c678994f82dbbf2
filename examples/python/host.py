#!/usr/bin/env python3
"""The log and the texts of codes from Python: host.py [LIBRARY] writes python.log.

Safe: logging, settings, lookups and registration of texts, the warning callback.

Not safe:
- RaiseError and RaiseErrorVar throw a C++ exception. No Python frame can catch it: the process is terminated.
- The classes (HalvikException, ExceptionHandler, StructuredException) are for C++. Use Python's own exceptions, and log them.
- A message as the format of LogFormatted: a percent sign in it reads arguments that are not there. Format in Python and call
  LogMessage.
- Texts given to SetErrorMessage and AddCustomErrorMessage are kept, not copied: keep a reference for as long as they are
  registered. The same goes for the object of a callback.
"""

import ctypes
import os
import sys

ERROR, WARNING, ALL_CATEGORIES, NOT_TOO_SMALL = 0, 1, 0xFFFFFFFF, 0
WARNING_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_void_p)


def load(path):
    # Without argument types ctypes passes whatever it is given; with them a wrong call is a Python exception.
    library = ctypes.CDLL(path)
    level, mask, text, length = ctypes.c_int, ctypes.c_uint, ctypes.c_char_p, ctypes.POINTER(ctypes.c_int)
    signatures = {
        "InitialiseLogging": (None, [ctypes.c_bool, level, mask, text]),
        "LogMessage": (ctypes.c_bool, [level, mask, text, text]),
        "LogMessageAndBufferAsHex": (ctypes.c_bool, [level, mask, text, text, ctypes.c_char_p, ctypes.c_int]),
        "ShutdownLogging": (None, []),
        "GetErrorString": (ctypes.c_int, [ctypes.c_int, ctypes.c_char_p, length]),
        "AddCustomErrorMessage": (ctypes.c_bool, [ctypes.c_int, text]),
        "SetWarningCallback": (None, [WARNING_CALLBACK, ctypes.c_void_p]),
        "LogWarning": (None, [ctypes.c_uint32, text]),  # and the arguments of the warning, one typed object each
    }
    for name, (result, arguments) in signatures.items():
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments
    return library


def error_string(library, code):
    size = ctypes.c_int(0)
    library.GetErrorString(code, None, ctypes.byref(size))  # too small: the size needed is written
    buffer = ctypes.create_string_buffer(size.value)
    assert library.GetErrorString(code, buffer, ctypes.byref(size)) == NOT_TOO_SMALL
    return buffer.value.decode()


def main():
    library = load(sys.argv[1] if len(sys.argv) > 1 else "libErrorHandlerDll.so")
    if os.path.exists("python.log"):
        os.remove("python.log")  # of an earlier run
    library.InitialiseLogging(True, WARNING, ALL_CATEGORIES, b"python.log")
    assert library.LogMessage(ERROR, 1, b"host.py - ", "100 % gelesen: Müller".encode())
    assert library.LogMessageAndBufferAsHex(WARNING, 1, b"host.py - ", b"answer", bytes(range(20)), 20)

    custom_text = b"Cover is open"  # stays referenced while it is registered
    assert library.AddCustomErrorMessage(0x10000, custom_text)
    assert error_string(library, 0x10000) == "Cover is open"
    assert error_string(library, 4) == "Not initialised"

    warnings = []
    callback = WARNING_CALLBACK(lambda code, text, _: warnings.append((code, text)))  # an exception in it would be swallowed
    library.SetWarningCallback(callback, None)
    library.LogWarning(1, b"host.py - ", ctypes.c_int(42))
    library.SetWarningCallback(WARNING_CALLBACK(), None)
    assert warnings == [(1, b"Ossel arm timeout failure - 42")], warnings

    library.ShutdownLogging()
    with open("python.log", encoding="utf-8") as log:
        lines = log.read().splitlines()
    assert lines[0].endswith("host.py - 100 % gelesen: Müller") and len(lines) == 5, lines


if __name__ == "__main__":
    main()
