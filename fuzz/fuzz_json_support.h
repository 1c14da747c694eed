// Parsing a fuzz input the way the policy readers parse their files: json-c
// reading a descriptor of a file that holds exactly the input.
#pragma once

#include <fcntl.h>
#include <json-c/json.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz_support.h"

namespace fuzzsupport {

struct JsonPut {
  void operator()(json_object* obj) const { json_object_put(obj); }
};
using JsonTree = std::unique_ptr<json_object, JsonPut>;

inline JsonTree ParseLikeTheReaders(const uint8_t* data, size_t size) {
  static MemFile file("fuzz_json");
  file.Set(data, size);
  const int fd = open(file.Path().c_str(), O_RDONLY | O_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  JsonTree root(json_object_from_fd(fd));
  close(fd);
  return root;
}

// The value under `key` of an object, null when absent, JSON null or when
// `obj` is no object.
inline json_object* Get(json_object* obj, const char* key) {
  json_object* value = nullptr;
  if (obj == nullptr || !json_object_object_get_ex(obj, key, &value)) return nullptr;
  return value;
}

// Length of a non-empty array, else 0.
inline size_t ArrayLength(json_object* obj) {
  if (obj == nullptr || !json_object_is_type(obj, json_type_array)) return 0;
  return json_object_array_length(obj);
}

}  // namespace fuzzsupport
