// What version of the system this is.
#pragma once

#include <string_view>

inline constexpr int qx_major = 12;
inline constexpr int qx_minor = 2;
inline constexpr int qx_patch = 0;
inline constexpr char qx_release[] = "12.2.0";
inline constexpr char qx_build[] = "+build.2108";
inline constexpr char qx_version[] = "12.2.0+build.2108";
static_assert(std::string_view(qx_version).starts_with(qx_release) &&
              std::string_view(qx_version).ends_with(qx_build));
