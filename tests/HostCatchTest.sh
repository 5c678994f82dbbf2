#!/bin/sh
# A host, built by the given command, raises through the library and catches what it throws.
#   HostCatchTest.sh LIBRARY COMPILER [OPTION...]
set -eu
library=$1
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/host.cpp" <<'HOST'
#include <cstring>
#include "ErrorHandlerDll/ErrorHandlerDll.h"
#include "ErrorHandlerDll/ExceptionHandler.h"
#include "ErrorHandlerDll/HalvikException.h"

int main()
{
    try
    {
        RaiseError(ZR_ERROR_FILE_NOT_FOUND, "Host", "layout.db");
    }
    catch (HalvikException* exception)
    {
        ExceptionHandler::HandleHalvikException("Host", exception);
        delete exception;
    }
    return std::strcmp(ExceptionHandler::m_lastErrorString, "The file layout.db does not exist");
}
HOST
"$@" -o "$work/host" "$work/host.cpp" "$library" "-Wl,-rpath,$(dirname "$library")"
"$work/host"
