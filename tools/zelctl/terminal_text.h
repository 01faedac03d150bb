// Directory values and caller words as zelctl shows them to a person.  A
// name may hold bytes a terminal acts on instead of showing: an escape
// sequence that clears the screen or retitles the window, a newline that
// forges a line of zelctl's own output, a bidirectional override that shows
// one name as another.  Text output passes every string through here;
// --json output needs nothing more, since its serializer escapes controls.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>

namespace zelctl {

// `text` with each such byte written as \xHH: the C0 controls (newline and
// tab too: a value never starts a line or a column of its own), DEL, the C1
// controls, the bidirectional embeddings, overrides and isolates, and bytes
// that are no UTF-8.  Everything else, backslashes included, stands as is.
std::string terminal_text(std::string_view text);

namespace detail {

// One %s argument as shown; wiped when printed, since a password shown on
// purpose (--reveal) is printed this way too.
class Shown {
public:
    explicit Shown(const char *text);
    ~Shown();
    Shown(const Shown &) = delete;
    Shown &operator=(const Shown &) = delete;
    const char *c_str() const { return text_.c_str(); }

private:
    std::string text_;
};

template <class T>
decltype(auto) shown_arg(const T &value) {
    if constexpr (std::is_convertible_v<const T &, const char *>)
        return Shown(value);
    else
        return value;
}

inline const char *printf_arg(const Shown &shown) { return shown.c_str(); }
template <class T>
const T &printf_arg(const T &value) {
    return value;
}

}  // namespace detail

// fprintf to `to` with every string argument shown as terminal_text shows
// it; the format is zelctl's own and is written as it stands.  The shown
// copies live until the call returns.  Called through say_to and say below.
template <class... A>
void say_shown(FILE *to, const char *format, const A &...args) {
    // The format was checked where say or say_to was called.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::fprintf(to, format, detail::printf_arg(detail::shown_arg(args))...);
#pragma GCC diagnostic pop
}

namespace detail {
// Never called: the compiler checks each format against its arguments here,
// as it would for fprintf, which the template above hides from it.
[[gnu::format(printf, 2, 3)]] int checked_format(FILE *, const char *, ...);
}  // namespace detail

}  // namespace zelctl

#define say_to(to, ...) \
    (static_cast<void>(sizeof(::zelctl::detail::checked_format(to, __VA_ARGS__))), \
     ::zelctl::say_shown(to, __VA_ARGS__))
#define say(...) say_to(stdout, __VA_ARGS__)
