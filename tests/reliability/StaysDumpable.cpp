// For LD_PRELOAD: the program cannot forbid that others of its user look into it. Tests that search its memory, or
// trace its calls, need that if they do not run as root.
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

extern "C" int prctl(int nOption, ...) {
    va_list arguments;
    va_start(arguments, nOption);
    const unsigned long ulSecond = va_arg(arguments, unsigned long);
    const unsigned long ulThird = va_arg(arguments, unsigned long);
    const unsigned long ulFourth = va_arg(arguments, unsigned long);
    const unsigned long ulFifth = va_arg(arguments, unsigned long);
    va_end(arguments);
    return nOption == PR_SET_DUMPABLE
               ? 0
               : static_cast<int>(syscall(SYS_prctl, nOption, ulSecond, ulThird, ulFourth, ulFifth));
}
