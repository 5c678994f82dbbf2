// The version of the headers. The library's soname carries no version: compatibility is kept within a major version.
#ifndef ERRORHANDLERDLL_VERSION_H
#define ERRORHANDLERDLL_VERSION_H

#define ERRORHANDLERDLL_VERSION_MAJOR 1
#define ERRORHANDLERDLL_VERSION_MINOR 0
#define ERRORHANDLERDLL_VERSION_PATCH 0
#define ERRORHANDLERDLL_VERSION "1.0.0"

#endif
