#include "QV/EmergencyScope.h"

namespace QV
{

constinit thread_local int EmergencyScope::sDepth = 0;
constinit thread_local int EmergencyScope::sWaitLeftMs = 0;

} // namespace QV
