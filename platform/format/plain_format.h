#ifndef GAKPPC_PLAIN_FORMAT_H
#define GAKPPC_PLAIN_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

// The formatting under the stand-ins. Nearly all log lines need no more than text, "%s", "%d" and "%u" and fit where
// they are to go. Those are done here in a fraction of vsnprintf's time; everything else is left to vsnprintf.
namespace platform {

// Text under construction in the caller's memory. An append that does not fit fails.
class TextOut {
public:
    TextOut(char* dest, char* end) : at_(dest), end_(end) {}

    bool Append(const char* text, size_t length)
    {
        if (length > static_cast<size_t>(end_ - at_)) {
            return false;
        }
        memcpy(at_, text, length);
        at_ += length;
        return true;
    }

    bool Append(const char* text) { return text != nullptr && Append(text, strlen(text)); }

    bool Append(unsigned value)
    {
        const ptrdiff_t count = CountDigits(value);
        if (count > end_ - at_) {
            return false;
        }
        char* digit = at_ += count;
        do {
            *--digit = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value != 0);
        return true;
    }

    bool Append(int value)
    {
        return value >= 0 ? Append(static_cast<unsigned>(value))
                          : Append("-", 1) && Append(0U - static_cast<unsigned>(value));
    }

    // A format's text up to the next '%' or its end, where `fmt` stands then. Most such texts are so short that calling
    // anybody costs more than copying them.
    bool AppendUpToConversion(const char*& fmt)
    {
        constexpr ptrdiff_t kShort = 8;
        if (end_ - at_ >= kShort) {
            for (ptrdiff_t i = 0; i < kShort; ++i) {
                if (*fmt == '%' || *fmt == '\0') {
                    return true;
                }
                *at_++ = *fmt++;
            }
        }
        const char* const rest = fmt;
        fmt = strchrnul(fmt, '%');
        return Append(rest, static_cast<size_t>(fmt - rest));
    }

    char* at() const { return at_; }

private:
    static ptrdiff_t CountDigits(unsigned value)
    {
        ptrdiff_t count = 1;
        for (uint64_t limit = 10; value >= limit; limit *= 10) {
            ++count;
        }
        return count;
    }

    char* at_;
    char* const end_;
};

inline bool AppendArgument(TextOut& out, char conversion, va_list* args)
{
    switch (conversion) {
        case 's':
            return out.Append(va_arg(*args, const char*));
        case 'd':
            return out.Append(va_arg(*args, int));
        case 'u':
            return out.Append(va_arg(*args, unsigned));
        default:
            return false;
    }
}

// False when the format has another conversion, or the text does not fit.
inline bool AppendPlain(TextOut& out, const char* fmt, va_list* args)
{
    for (;;) {
        if (!out.AppendUpToConversion(fmt)) {
            return false;
        }
        if (*fmt == '\0') {
            return true;
        }
        if (!AppendArgument(out, fmt[1], args)) {
            return false;
        }
        fmt += 2;
    }
}

// vsnprintf, for a `size` above 0.
__attribute__((format(printf, 3, 0))) inline int Format(char* dest, size_t size, const char* fmt, va_list args)
{
    TextOut out(dest, dest + size - 1);
    va_list copy;
    va_copy(copy, args);
    const bool done = AppendPlain(out, fmt, &copy);
    va_end(copy);
    if (!done) {
        return vsnprintf(dest, size, fmt, args);
    }
    *out.at() = '\0';
    return static_cast<int>(out.at() - dest);
}

}  // namespace platform

#endif
