// Tag values that select an overload by intent rather than by argument type:
// become(utCopy, other) copies, become(utConvert, data, n) converts raw data.
// utBool is the library's boolean element type (kept as a name so that arrays
// of flags read the same everywhere).
#pragma once

struct utCopyTag {};
struct utConvertTag {};
constexpr utCopyTag utCopy{};
constexpr utConvertTag utConvert{};

using utBool = bool;
