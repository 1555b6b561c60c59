// SPDX-License-Identifier: GPL-2.0-only
//
// The kernel's formats. A conversion is taken apart, its argument fetched with the type that its
// length modifier names, and C's own snprintf prints it; only what follows %p is the kernel's.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kernel/printk.h"

namespace {

enum class length_modifier : u8 {
  none,
  character,
  half,
  word,
  double_word,
  size,
  difference,
};

/// One conversion of a format.
struct conversion {
  bool left;      ///< flag '-'
  char flags[8];  ///< the others, NUL-terminated
  int width;      ///< -1: none
  int precision;  ///< -1: none
  length_modifier length;
  char letter;
};

/// The text so far: writes what fits and counts the rest.
struct output {
  char* to;
  std::size_t size;
  std::size_t length;

  void put(char c) noexcept {
    if (length + 1 < size) to[length] = c;
    ++length;
  }
  void put_padded(const char* text, const conversion& c) noexcept {
    const int padding = c.width - static_cast<int>(std::strlen(text));
    for (int i = 0; !c.left && i < padding; ++i)
      put(' ');
    for (const char* p = text; *p != '\0'; ++p)
      put(*p);
    for (int i = 0; c.left && i < padding; ++i)
      put(' ');
  }
  [[nodiscard]] char* rest() const noexcept { return length < size ? to + length : nullptr; }
  [[nodiscard]] std::size_t room() const noexcept { return length < size ? size - length : 0; }
};

bool is_digit(char c) noexcept {
  return c >= '0' && c <= '9';
}

/// A number in the format, or '*' for one in the arguments.
const char* parse_number(const char* f, va_list* args, int* number) noexcept {
  if (*f == '*') {
    *number = va_arg(*args, int);
    return f + 1;
  }
  *number = 0;
  while (is_digit(*f))
    *number = *number * 10 + (*f++ - '0');
  return f;
}

const char* parse_length(const char* f, length_modifier* length) noexcept {
  *length = length_modifier::none;
  const bool twice = f[0] != '\0' && f[0] == f[1];
  switch (*f) {
    case 'h':
      *length = twice ? length_modifier::character : length_modifier::half;
      return f + (twice ? 2 : 1);
    case 'l':
      *length = twice ? length_modifier::double_word : length_modifier::word;
      return f + (twice ? 2 : 1);
    case 'z':
      *length = length_modifier::size;
      return f + 1;
    case 't':
      *length = length_modifier::difference;
      return f + 1;
    default:
      return f;
  }
}

/// Takes apart what follows a '%'.
const char* parse_conversion(const char* f, va_list* args, conversion* c) noexcept {
  *c = {};
  c->width = c->precision = -1;
  for (std::size_t n = 0; *f != '\0' && std::strchr("-+ #0", *f) != nullptr; ++f) {
    if (*f == '-') {
      c->left = true;
    } else if (n + 1 < sizeof c->flags) {
      c->flags[n++] = *f;
    }
  }
  if (*f == '*' || is_digit(*f)) f = parse_number(f, args, &c->width);
  if (c->width < -1) {
    c->left = true;
    c->width = -c->width;
  }
  if (*f == '.') f = parse_number(f + 1, args, &c->precision);
  f = parse_length(f, &c->length);
  c->letter = *f;
  return *f == '\0' ? f : f + 1;
}

/// Prints one argument as C does, with the length modifier `modifier`.
template <typename Value>
void print(output* out, const conversion& c, const char* modifier, Value value) noexcept {
  char width[16] = "";
  char precision[16] = "";
  if (c.width >= 0) std::snprintf(width, sizeof width, "%d", c.width);
  if (c.precision >= 0) std::snprintf(precision, sizeof precision, ".%d", c.precision);
  char format[64];
  std::snprintf(format, sizeof format, "%%%s%s%s%s%s%c", c.left ? "-" : "", c.flags, width,
                precision, modifier, c.letter);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int printed = std::snprintf(out->rest(), out->room(), format, value);
#pragma GCC diagnostic pop
  if (printed > 0) out->length += static_cast<std::size_t>(printed);
}

void print_integer(output* out, const conversion& c, va_list* args) noexcept {
  switch (c.length) {
    case length_modifier::none:
      return print(out, c, "", va_arg(*args, int));
    case length_modifier::character:
      return print(out, c, "hh", va_arg(*args, int));
    case length_modifier::half:
      return print(out, c, "h", va_arg(*args, int));
    case length_modifier::word:
      return print(out, c, "l", va_arg(*args, long));
    case length_modifier::double_word:
      return print(out, c, "ll", va_arg(*args, long long));
    case length_modifier::size:
      return print(out, c, "z", va_arg(*args, std::size_t));
    case length_modifier::difference:
      return print(out, c, "t", va_arg(*args, std::ptrdiff_t));
  }
}

void print_ipv4(output* out, const conversion& c, const u8* address) noexcept {
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", address[0], address[1], address[2], address[3]);
  out->put_padded(text, c);
}

void print_ipv6(output* out, const conversion& c, const u8* address) noexcept {
  char text[40];
  for (std::size_t group = 0; group < 8; ++group) {
    std::snprintf(text + group * 5, 6, "%02x%02x%s", address[group * 2], address[group * 2 + 1],
                  group == 7 ? "" : ":");
  }
  out->put_padded(text, c);
}

void print_mac(output* out, const conversion& c, const u8* mac) noexcept {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  out->put_padded(text, c);
}

/// What follows %p chooses the form. Returns where the format goes on.
const char* print_pointer(output* out, const conversion& c, const char* f,
                          const void* pointer) noexcept {
  const auto* bytes = static_cast<const u8*>(pointer);
  const bool ip = f[0] == 'I' && (f[1] == '4' || f[1] == '6');
  const char* rest = ip ? f + 2 : f[0] == 'M' ? f + 1 : f;
  if (pointer == nullptr) {
    out->put_padded("(null)", c);
  } else if (ip && f[1] == '4') {
    print_ipv4(out, c, bytes);
  } else if (ip) {
    print_ipv6(out, c, bytes);
  } else if (f[0] == 'M') {
    print_mac(out, c, bytes);
  } else {
    char text[2 * sizeof(void*) + 1];
    std::snprintf(text, sizeof text, "%0*llx", static_cast<int>(2 * sizeof(void*)),
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pointer)));
    out->put_padded(text, c);
  }
  return rest;
}

/// Prints one conversion with its argument. Returns where the format goes on.
const char* print_conversion(output* out, const char* f, va_list* args) noexcept {
  const char* const begin = f;
  conversion c;
  f = parse_conversion(f, args, &c);
  switch (c.letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      print_integer(out, c, args);
      return f;
    case 'c':
      print(out, c, "", va_arg(*args, int));
      return f;
    case 's': {
      const char* text = va_arg(*args, const char*);
      print(out, c, "", text != nullptr ? text : "(null)");
      return f;
    }
    case 'p':
      return print_pointer(out, c, f, va_arg(*args, const void*));
    case '%':
      out->put('%');
      return f;
    default:
      // Not a conversion of the kernel's: shown as it stands.
      out->put('%');
      return begin;
  }
}

}  // namespace

extern "C" {

int vscnprintf_full(char* to, std::size_t size, const char* format,
                    __builtin_va_list args) noexcept {
  output out{to, size, 0};
  va_list own;
  va_copy(own, args);
  while (*format != '\0') {
    if (*format != '%') {
      out.put(*format++);
      continue;
    }
    format = print_conversion(&out, format + 1, &own);
  }
  va_end(own);
  if (size != 0) to[out.length < size ? out.length : size - 1] = '\0';
  return static_cast<int>(out.length);
}

int scnprintf_full(char* to, std::size_t size, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  const int length = vscnprintf_full(to, size, format, args);
  va_end(args);
  return length;
}

}  // extern "C"
