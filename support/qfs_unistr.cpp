// UTF-8 and UTF-16 conversions.
#include "support/qfs_unistr.h"

#include <sys/types.h>

#include <climits>
#include <cstdint>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

bool is_continuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

// Refusals are part of normal input checking, so they only go to the trace.
qfs_result refuse(const char *why, uint8_t byte) {
    QFS_TRACE("%s", why);
    QFS_TRACE("byte = %u (0x%X)", static_cast<unsigned>(byte), static_cast<unsigned>(byte));
    return QFS_ERR_INVALID_DATA;
}

// Decodes the code point at s (s_len >= 1 bytes left) into *wc and its length
// into *used. Bytes 0xF5-0xFF count as four-byte leads: with the lead's low
// four bits their value is at least 0x140000, so the range check refuses them.
qfs_result utf8_decode_one(const uint8_t *s, size_t s_len, uint32_t *wc, size_t *used) {
    if (s[0] < 0x80) {
        *wc = s[0];
        *used = 1;
        return QFS_OK;
    }
    if (s[0] < 0xC2) {
        return refuse("Invalid sequence: byte < 0xC2", s[0]);
    }
    if (s[0] < 0xE0) {
        if (s_len < 2) {
            return refuse("Invalid sequence: s_len < 2", s[0]);
        }
        if (!is_continuation(s[1])) {
            return refuse("Invalid sequence: (s[1] & 0xC0) != 0x80", s[1]);
        }
        *wc = (static_cast<uint32_t>(s[0] & 0x1F) << 6) | (s[1] & 0x3F);
        *used = 2;
        return QFS_OK;
    }
    if (s[0] < 0xF0) {
        if (s_len < 3) {
            return refuse("Invalid sequence: s_len < 3", s[0]);
        }
        if (!(is_continuation(s[1]) && is_continuation(s[2]))) {
            return refuse("Invalid sequence: !(((s[1] & 0xC0) == 0x80) && ((s[2] & 0xC0) == 0x80))",
                          is_continuation(s[1]) ? s[2] : s[1]);
        }
        const uint32_t value =
            (static_cast<uint32_t>(s[0] & 0x0F) << 12) | (static_cast<uint32_t>(s[1] & 0x3F) << 6) | (s[2] & 0x3F);
        if (!((value >= 0x800 && value <= 0xD7FF) || (value >= 0xE000 && value <= 0xFFFF))) {
            return refuse("Invalid sequence: !(((*wc >= 0x800) && (*wc <= 0xD7FF)) || ((*wc >= 0xE000) && "
                          "(*wc <= 0xFFFF)))",
                          s[0]);
        }
        *wc = value;
        *used = 3;
        return QFS_OK;
    }
    if (s_len < 4) {
        return refuse("Invalid sequence: s_len < 4", s[0]);
    }
    if (!(is_continuation(s[1]) && is_continuation(s[2]) && is_continuation(s[3]))) {
        const uint8_t offending = !is_continuation(s[1]) ? s[1] : !is_continuation(s[2]) ? s[2] : s[3];
        return refuse("Invalid sequence: !(((s[1] & 0xC0) == 0x80) && ((s[2] & 0xC0) == 0x80) && ((s[3] & "
                      "0xC0) == 0x80))",
                      offending);
    }
    const uint32_t value = (static_cast<uint32_t>(s[0] & 0x0F) << 18) | (static_cast<uint32_t>(s[1] & 0x3F) << 12) |
                           (static_cast<uint32_t>(s[2] & 0x3F) << 6) | (s[3] & 0x3F);
    if (!(value <= 0x10FFFF && value >= 0x10000)) {
        return refuse("Invalid sequence: !((*wc <= 0x10FFFF) && (*wc >= 0x10000))", s[0]);
    }
    *wc = value;
    *used = 4;
    return QFS_OK;
}

// Walks the UTF-8 text up to its end or a zero byte, handing every code point to `emit`.
template <typename Emit> qfs_result utf8_walk(const uint8_t *s, size_t length, Emit emit) {
    size_t offset = 0;
    while (offset < length && s[offset] != 0) {
        uint32_t wc = 0;
        size_t used = 0;
        const qfs_result r = utf8_decode_one(s + offset, length - offset, &wc, &used);
        if (r != QFS_OK) {
            return r;
        }
        emit(wc);
        offset += used;
    }
    return QFS_OK;
}

constexpr uint32_t first_supplementary = 0x10000;
constexpr uint16_t high_surrogate_base = 0xD800;
constexpr uint16_t low_surrogate_base = 0xDC00;

bool is_high_surrogate(uint16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool is_low_surrogate(uint16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// The number of UTF-16 units the text needs.
qfs_result count_utf16_units(const char *utf8, size_t utf8_length, size_t *out_units) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(utf8);
    size_t shorts = 0;
    const qfs_result r =
        utf8_walk(bytes, utf8_length, [&](uint32_t wc) { shorts += wc >= first_supplementary ? 2 : 1; });
    if (r != QFS_OK) {
        const int shown = utf8_length > INT_MAX ? INT_MAX : static_cast<int>(utf8_length);
        QFS_LOG_ERROR("Error while getting UTF-16 size for %zu-byte UTF-8 string \"%.*s\": %lu (%s)", utf8_length,
                      shown, bytes ? utf8 : "", QFS_ERR_ARGS(r));
        return r;
    }
    *out_units = shorts;
    return QFS_OK;
}

// The caller's buffer when it brought one, else a new one with room for a terminator.
qfs_result utf16_destination(uint16_t *preallocated, size_t preallocated_length, size_t shorts,
                             qfs_unique<uint16_t[]> &allocated, uint16_t **out_units, size_t *out_capacity) {
    if (preallocated != nullptr) {
        if (preallocated_length < shorts) {
            QFS_LOG_ERROR("Preallocated buffer is too small to hold the UTF-16 result. *outs_len (%zu) < shorts (%zu)",
                          preallocated_length, shorts);
            return QFS_ERR_OVERFLOW;
        }
        *out_units = preallocated;
        *out_capacity = preallocated_length;
        return QFS_OK;
    }
    const size_t capacity = shorts + 1;
    const size_t size = capacity * sizeof(uint16_t);
    void *block = nullptr;
    const qfs_result r = _qfs_malloc(0, size, &block);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating %zu bytes for UTF-16 result: %lu (%s)", size, QFS_ERR_ARGS(r));
        return r;
    }
    allocated.reset(static_cast<uint16_t *>(block));
    *out_units = allocated.get();
    *out_capacity = capacity;
    return QFS_OK;
}

// Writes the text's `shorts` units, and a terminator when there is room for one.
qfs_result encode_utf16(const uint8_t *bytes, size_t utf8_length, uint16_t *units, size_t capacity, size_t shorts) {
    size_t filled = 0;
    qfs_result r = utf8_walk(bytes, utf8_length, [&](uint32_t wc) {
        if (filled >= capacity) {
            return; // cannot happen after the sizing pass; the count check below reports it
        }
        if (wc < first_supplementary) {
            units[filled++] = static_cast<uint16_t>(wc);
            return;
        }
        if (filled + 1 >= capacity) {
            filled = capacity; // as above
            return;
        }
        const uint32_t offset = wc - first_supplementary;
        units[filled++] = static_cast<uint16_t>(high_surrogate_base + (offset >> 10));
        units[filled++] = static_cast<uint16_t>(low_surrogate_base + (offset & 0x3FF));
    });
    if (r == QFS_OK && filled != shorts) {
        r = QFS_ERR_INTERNAL_ERROR;
        QFS_LOG_CRITICAL("Internal error - Filled length is not as expected. Expected: %zu Actual: %zd", shorts,
                         static_cast<ssize_t>(filled));
    }
    if (r == QFS_OK && filled < capacity) {
        units[filled] = 0;
    }
    return r;
}

} // namespace

qfs_result qfs_unistr_from_utf8(const char *utf8, size_t utf8_length, uint16_t **inout_utf16,
                                size_t *inout_length) {
    if (inout_utf16 == nullptr) {
        QFS_LOG_ERROR("No place for the UTF-16 result: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_INVALID_PARAMETER));
        return QFS_ERR_INVALID_PARAMETER;
    }
    const bool preallocated = *inout_utf16 != nullptr;
    if (preallocated && inout_length == nullptr) {
        QFS_LOG_ERROR("Preallocated 'outs', but no 'outs_len' specified. *outs=%p outs_len=%p",
                      static_cast<void *>(*inout_utf16), static_cast<void *>(inout_length));
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (utf8 == nullptr) {
        utf8_length = 0;
    }
    size_t shorts = 0;
    qfs_result r = count_utf16_units(utf8, utf8_length, &shorts);
    if (r != QFS_OK) {
        return r;
    }
    qfs_unique<uint16_t[]> allocated;
    uint16_t *units = nullptr;
    size_t capacity = 0;
    r = utf16_destination(*inout_utf16, preallocated ? *inout_length : 0, shorts, allocated, &units, &capacity);
    if (r != QFS_OK) {
        return r;
    }
    r = encode_utf16(reinterpret_cast<const uint8_t *>(utf8), utf8_length, units, capacity, shorts);
    if (r != QFS_OK) {
        return r;
    }
    if (!preallocated) {
        *inout_utf16 = allocated.release();
    }
    if (inout_length != nullptr) {
        *inout_length = shorts;
    }
    return QFS_OK;
}

qfs_result qfs_unistr_to_utf8(const uint16_t *utf16, size_t length, char **out_utf8, size_t *out_length) {
    if (utf16 == nullptr) {
        length = 0;
    }
    // One pass to validate and measure, one to write.
    size_t size = 0;
    size_t units = 0;
    for (; units < length && utf16[units] != 0; ++units) {
        const uint16_t unit = utf16[units];
        if (is_high_surrogate(unit) && units + 1 < length && is_low_surrogate(utf16[units + 1])) {
            size += 4;
            ++units;
        } else if (is_high_surrogate(unit) || is_low_surrogate(unit)) {
            QFS_TRACE("Unpaired surrogate 0x%04X at unit %zu", static_cast<unsigned>(unit), units);
            return QFS_ERR_INVALID_DATA;
        } else {
            size += unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
        }
    }

    void *block = nullptr;
    const qfs_result r = _qfs_malloc(0, size + 1, &block);
    if (r != QFS_OK) {
        return r;
    }
    auto *text = static_cast<uint8_t *>(block);
    size_t written = 0;
    for (size_t i = 0; i < units; ++i) {
        uint32_t wc = utf16[i];
        if (is_high_surrogate(utf16[i])) {
            wc = first_supplementary + ((wc - high_surrogate_base) << 10) + (utf16[i + 1] - low_surrogate_base);
            ++i;
        }
        if (wc < 0x80) {
            text[written++] = static_cast<uint8_t>(wc);
        } else if (wc < 0x800) {
            text[written++] = static_cast<uint8_t>(0xC0 | (wc >> 6));
            text[written++] = static_cast<uint8_t>(0x80 | (wc & 0x3F));
        } else if (wc < first_supplementary) {
            text[written++] = static_cast<uint8_t>(0xE0 | (wc >> 12));
            text[written++] = static_cast<uint8_t>(0x80 | ((wc >> 6) & 0x3F));
            text[written++] = static_cast<uint8_t>(0x80 | (wc & 0x3F));
        } else {
            text[written++] = static_cast<uint8_t>(0xF0 | (wc >> 18));
            text[written++] = static_cast<uint8_t>(0x80 | ((wc >> 12) & 0x3F));
            text[written++] = static_cast<uint8_t>(0x80 | ((wc >> 6) & 0x3F));
            text[written++] = static_cast<uint8_t>(0x80 | (wc & 0x3F));
        }
    }
    text[written] = 0;
    *out_utf8 = reinterpret_cast<char *>(text);
    if (out_length != nullptr) {
        *out_length = written;
    }
    return QFS_OK;
}
