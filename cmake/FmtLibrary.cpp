// SPDX-License-Identifier: Apache-2.0
// {fmt} as a library, where Debian's build of it does not fit the C++ library: what its headers
// declare and leave to one file. Header-only, each file would compile it anew, 4 seconds a file.
#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {

template FMT_API auto dragonbox::to_decimal(float x) noexcept -> dragonbox::decimal_fp<float>;
template FMT_API auto dragonbox::to_decimal(double x) noexcept -> dragonbox::decimal_fp<double>;
template FMT_API auto locale_ref::get<std::locale>() const -> std::locale;
template FMT_API auto thousands_sep_impl(locale_ref loc) -> thousands_sep_result<char>;
template FMT_API auto decimal_point_impl(locale_ref loc) -> char;
template FMT_API void buffer<char>::append(const char* begin, const char* end);
template FMT_API void vformat_to(buffer<char>& out, string_view text,
                                 basic_format_args<format_context> args, locale_ref loc);

}  // namespace detail
FMT_END_NAMESPACE
