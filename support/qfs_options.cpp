#include "support/qfs_options.h"

#include <cstring>
#include <vector>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_support.h"

namespace {

constexpr size_t list_growth = 20;

bool is_positional(const qfs_option &option) {
    return option.short_name == 0 && option.long_name == nullptr;
}

const char *kind_usage_name(uint32_t kind) {
    switch (kind) {
    case QFS_OPTION_UINT: return "uint value";
    case QFS_OPTION_UINT_HEX: return "uint hex value";
    case QFS_OPTION_UINT_LIST: return "list of uint values";
    case QFS_OPTION_STRING: return "string value";
    default: return "[UNKNOWN VALUE TYPE]";
    }
}

int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 99;
}

// Digits of one base filling [begin, end); empty or out-of-range text fails.
bool parse_digits(const char *begin, const char *end, unsigned base, uint64_t *out) {
    if (begin == end) return false;
    uint64_t value = 0;
    for (const char *p = begin; p != end; ++p) {
        const int digit = digit_value(*p);
        if (digit >= static_cast<int>(base)) return false;
        if (value > (UINT64_MAX - static_cast<uint64_t>(digit)) / base) return false;
        value = value * base + static_cast<uint64_t>(digit);
    }
    *out = value;
    return true;
}

// "0x" and hexadecimal digits, a leading "0" and octal digits, or decimal digits.
bool parse_number(const char *text, size_t length, uint64_t *out) {
    const char *end = text + length;
    if (length >= 2 && text[0] == '0' && text[1] == 'x') return parse_digits(text + 2, end, 16, out);
    if (length >= 1 && text[0] == '0') {
        if (length == 1) {
            *out = 0;
            return true;
        }
        return parse_digits(text + 1, end, 8, out);
    }
    return parse_digits(text, end, 10, out);
}

bool store_number(uint32_t kind, const char *text, uint64_t *out) {
    const size_t length = strlen(text);
    switch (kind) {
    case QFS_OPTION_UINT: return parse_number(text, length, out);
    case QFS_OPTION_UINT_HEX: return parse_digits(text, text + length, 16, out);
    default: return parse_digits(text, text + length, 8, out);
    }
}

void print_invalid_value(const char *option_as_typed, const char *value) {
    if (option_as_typed != nullptr) {
        fprintf(stderr, "Error: Invalid value%s%s%s: '%s'\n", " for option '", option_as_typed, "'", value);
    } else {
        fprintf(stderr, "Error: Invalid value%s%s%s: '%s'\n", "", "", "", value);
    }
}

// Stores the value of `option`; `value_index` is the argument holding it.
bool store_value(const qfs_option &option, char **argv, int value_index, const char *option_as_typed) {
    const char *text = argv[value_index];
    switch (option.kind) {
    case QFS_OPTION_FLAG:
        *static_cast<uint32_t *>(option.value) = 1;
        return true;
    case QFS_OPTION_UINT:
    case QFS_OPTION_UINT_HEX:
    case QFS_OPTION_UINT_OCT: {
        uint64_t number = 0;
        if (!store_number(option.kind, text, &number)) {
            print_invalid_value(option_as_typed, text);
            return false;
        }
        *static_cast<uint64_t *>(option.value) = number;
        return true;
    }
    case QFS_OPTION_UINT_LIST: {
        qfs_uint_list list{};
        if (qfs_options_parse_list_input(argv, value_index, &list) != QFS_OK) {
            print_invalid_value(option_as_typed, text);
            return false;
        }
        // A repeated option replaces the list, and the earlier one has no other owner.
        auto *stored = static_cast<qfs_uint_list *>(option.value);
        qfs_free(stored->elements);
        *stored = list;
        return true;
    }
    case QFS_OPTION_STRING:
        *static_cast<const char **>(option.value) = text;
        return true;
    default:
        QFS_LOG_WARNING("Unsupported spec type: %d", static_cast<int>(option.kind));
        return true;
    }
}

const qfs_option *match_option(const char *argument, const qfs_option *options, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const qfs_option &o = options[i];
        if (o.short_name != 0 && argument[0] == '-' && static_cast<unsigned char>(argument[1]) == o.short_name &&
            argument[2] == '\0') {
            return &o;
        }
        if (o.long_name != nullptr && strncmp(argument, "--", 2) == 0 && strcmp(argument + 2, o.long_name) == 0) {
            return &o;
        }
    }
    return nullptr;
}

} // namespace

int qfs_options_parse(int argc, char **argv, const qfs_option *options, size_t option_count) {
    bool options_ended = false;
    bool mandatory_check = true;
    size_t positional_cursor = 0;
    std::vector<bool> positional_used(option_count, false);

    for (int i = 1; i < argc; ++i) {
        const char *argument = argv[i];
        if (!options_ended && strcmp(argument, "--") == 0) {
            options_ended = true;
            continue;
        }
        const qfs_option *option = nullptr;
        const char *option_as_typed = nullptr;
        int value_index = i;
        if (!options_ended && argument[0] == '-' && argument[1] != '\0') {
            option = match_option(argument, options, option_count);
            if (option == nullptr) {
                fprintf(stderr, "Error: Unknown option '%s'.\n", argument);
                return 0;
            }
            option_as_typed = argument;
            if (option->kind != QFS_OPTION_FLAG) {
                if (i + 1 >= argc) {
                    fprintf(stderr, "Error: Expected value for option '%s'.\n", argument);
                    return 0;
                }
                value_index = i + 1;
            }
        } else {
            while (positional_cursor < option_count && !is_positional(options[positional_cursor])) {
                ++positional_cursor;
            }
            if (positional_cursor >= option_count) {
                fprintf(stderr, "Error: Unexpected argument '%s'.\n", argument);
                return 0;
            }
            positional_used[positional_cursor] = true;
            option = &options[positional_cursor++];
        }
        if (!store_value(*option, argv, value_index, option_as_typed)) {
            return 0;
        }
        i = value_index;
        if (option->given != nullptr) {
            *option->given = 1;
        }
        if (option->mandatory == 0) {
            mandatory_check = false;
        }
    }

    if (!mandatory_check) {
        return 1;
    }
    int ok = 1;
    for (size_t k = 0; k < option_count; ++k) {
        if (is_positional(options[k]) && !positional_used[k]) {
            fprintf(stderr, "Error: Missing parameter \"%s\".\n", options[k].value_name);
            ok = 0;
        }
    }
    return ok;
}

qfs_result qfs_options_parse_list_input(char **argv, int value_index, qfs_uint_list *out_list) {
    const char *option = value_index > 0 ? argv[value_index - 1] : "";
    const char *text = argv[value_index];
    size_t capacity = list_growth;
    void *block = nullptr;
    qfs_result r = _qfs_malloc(0, capacity * sizeof(uint32_t), &block);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating %zu entries of uint list data for option \"%s\": %lu (%s)",
                      capacity, option, QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<uint32_t[]> elements(static_cast<uint32_t *>(block));
    size_t count = 0;
    const size_t length = strlen(text);
    size_t start = 0;
    while (start <= length) {
        const char *comma = static_cast<const char *>(memchr(text + start, ',', length - start));
        const size_t end = comma ? static_cast<size_t>(comma - text) : length;
        if (end == start) {
            QFS_LOG_ERROR("Empty list entry at character %zu", start);
            return QFS_ERR_INVALID_PARAMETER;
        }
        uint64_t value = 0;
        if (!parse_number(text + start, end - start, &value)) {
            QFS_LOG_ERROR("Invalid value for option '%s': '%s'", option, text);
            return QFS_ERR_INVALID_PARAMETER;
        }
        if (value > UINT32_MAX) {
            QFS_LOG_ERROR("List entry value at character %zu too large: %llu > %lu", start,
                          static_cast<unsigned long long>(value), static_cast<unsigned long>(UINT32_MAX));
            return QFS_ERR_INVALID_PARAMETER;
        }
        if (count == capacity) {
            const size_t grown = capacity + list_growth;
            void *bigger = nullptr;
            r = _qfs_realloc(0, elements.get(), capacity * sizeof(uint32_t), grown * sizeof(uint32_t), &bigger);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while expanding uint list data from %zu to %zu entries: %lu (%s)", capacity,
                              grown, QFS_ERR_ARGS(r));
                return r;
            }
            elements.release();
            elements.reset(static_cast<uint32_t *>(bigger));
            capacity = grown;
        }
        elements[count++] = static_cast<uint32_t>(value);
        if (comma == nullptr) break;
        start = end + 1;
    }
    out_list->elements = elements.release();
    out_list->count = count;
    return QFS_OK;
}

void qfs_options_print_usage(FILE *stream, const char *program_path, const qfs_option *options,
                             size_t option_count) {
    fprintf(stream, "usage: %s", qfs_basename(program_path));
    for (size_t i = 0; i < option_count; ++i) {
        const qfs_option &o = options[i];
        if (!o.in_usage) continue;
        const bool named = o.short_name != 0 || o.long_name != nullptr;
        if (o.short_name != 0) {
            fprintf(stream, " [-%c", static_cast<char>(o.short_name));
        } else if (o.long_name != nullptr) {
            fprintf(stream, " [--%s", o.long_name);
        }
        if (o.kind != QFS_OPTION_FLAG) {
            fprintf(stream, " <%s>", o.value_name ? o.value_name : kind_usage_name(o.kind));
        }
        if (named) fputs("]", stream);
    }
    fputs("\n", stream);
}
