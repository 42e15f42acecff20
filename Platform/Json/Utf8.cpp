#include "Platform/Json/Utf8.h"

#include <simdjson.h>

bool Utf8::isValid(std::string_view bytes) {
  return simdjson::validate_utf8(bytes.data(), bytes.size());
}
