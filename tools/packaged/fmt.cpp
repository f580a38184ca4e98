// The functions of the fmt library, which as a library of headers would be compiled in each source.
#include <fmt/format-inl.h>

// fmt/format.h declares these as instantiated elsewhere.
template auto fmt::detail::thousands_sep_impl<char>(fmt::detail::locale_ref) -> fmt::detail::thousands_sep_result<char>;
template auto fmt::detail::thousands_sep_impl<wchar_t>(fmt::detail::locale_ref)
    -> fmt::detail::thousands_sep_result<wchar_t>;
template auto fmt::detail::decimal_point_impl(fmt::detail::locale_ref) -> char;
template auto fmt::detail::decimal_point_impl(fmt::detail::locale_ref) -> wchar_t;
