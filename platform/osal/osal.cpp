#include "osal.h"

#include <sys/syscall.h>
#include <unistd.h>

int osalGetTid(void)
{
    return static_cast<int>(syscall(SYS_gettid));
}
