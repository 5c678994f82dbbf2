// A parser as somebody else delivers it: it trusts its input. A document is "CELLS,COLUMNS".
#include <cstring>

namespace
{

int ReadNumber(const char* text)
{
    int number = 0;
    for (; *text >= '0' && *text <= '9'; ++text)
    {
        number = number * 10 + (*text - '0');
    }
    return number;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int CountRows(const char* document)
{
    const char* const comma = std::strchr(document, ',');
    return ReadNumber(document) / ReadNumber(comma + 1); // NOLINT: faults on bad documents
}
