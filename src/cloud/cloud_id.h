// What a cloud ID may be, wherever it comes from. Pure.
#pragma once

#include <stddef.h>

inline constexpr size_t CLOUD_ID_MIN_LENGTH = 8;   // bytes
inline constexpr size_t CLOUD_ID_MAX_LENGTH = 50;  // bytes

[[nodiscard]] constexpr bool is_cloud_id_length(size_t length) {
  return length >= CLOUD_ID_MIN_LENGTH && length <= CLOUD_ID_MAX_LENGTH;
}
