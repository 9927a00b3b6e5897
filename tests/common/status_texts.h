#ifndef GAKPPC_STATUS_TEXTS_H
#define GAKPPC_STATUS_TEXTS_H

#include <cstdint>

struct StatusTextRow {
    uint32_t status;
    uint32_t level;
    const char* text;
};

constexpr StatusTextRow kStatusTexts[] = {
#define STATUS_TEXT(status, level, text) {status, level, text},
#include "status_texts.inc"
#undef STATUS_TEXT
};

#endif
