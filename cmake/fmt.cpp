// What fmt's shared library holds, compiled into the programs: a library of C++ brings that of the language
// with it, whose thousands of symbols are looked up anew each time a program starts.
#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {

template auto dragonbox::to_decimal(float x) noexcept -> dragonbox::decimal_fp<float>;
template auto dragonbox::to_decimal(double x) noexcept -> dragonbox::decimal_fp<double>;
template auto thousands_sep_impl(locale_ref) -> thousands_sep_result<char>;
template auto decimal_point_impl(locale_ref) -> char;
template void buffer<char>::append(const char*, const char*);
template void vformat_to(buffer<char>&, string_view, basic_format_args<FMT_BUFFER_CONTEXT(char)>, locale_ref);

}  // namespace detail
FMT_END_NAMESPACE
