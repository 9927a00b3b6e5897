#include "memguard.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "plain_format.h"

namespace {

// Leaves an empty text behind, where there is room for one, and reports the failure.
int FailEmpty(char* dest, size_t destMax)
{
    if (dest != nullptr && destMax > 0) {
        dest[0] = '\0';
    }
    return -1;
}

}  // namespace

int memset_s(void* dest, size_t destMax, int c, size_t count)
{
    if (dest == nullptr) {
        return EINVAL;
    }
    if (destMax > SIZE_MAX / 2) {
        return ERANGE;
    }
    if (count > destMax) {
        memset(dest, c, destMax);
        return ERANGE;
    }
    memset(dest, c, count);
    return 0;
}

int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* fmt, va_list args)
{
    if (dest == nullptr || fmt == nullptr || destMax == 0) {
        return FailEmpty(dest, destMax);
    }
    const size_t size = count < destMax ? count + 1 : destMax;
    const int length = platform::Format(dest, size, fmt, args);
    if (length < 0) {
        return FailEmpty(dest, destMax);
    }
    if (static_cast<size_t>(length) < size) {
        return length;
    }
    return count < destMax ? -1 : FailEmpty(dest, destMax);
}

int sprintf_s(char* dest, size_t destMax, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf_s(dest, destMax, SIZE_MAX, fmt, args);
    va_end(args);
    return length;
}
