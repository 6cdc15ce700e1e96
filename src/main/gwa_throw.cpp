// What std::string_view calls when a position is beyond the end, which is a mistake of ours: the
// position is checked before wherever it comes from outside. libstdc++'s own function throws, and
// for that alone the box would have to carry the whole library.

#include <string_view>  // declares it

#include "runtime/gwa_process.h"

namespace std {
void __throw_out_of_range_fmt(const char*, ...) {
    gwa_process_abort(GWA_FILE_NAME, __LINE__, __func__);
}
}  // namespace std
