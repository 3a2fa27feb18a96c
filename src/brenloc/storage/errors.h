// The error of a failed storage operation: the SQLite message, with the statement or step that failed.
#pragma once

#include <stdexcept>
#include <string>

namespace brenloc::storage {

class StorageError : public std::runtime_error {
 public:
  StorageError(const std::string& what, int code) : std::runtime_error(what), code_(code) {}
  int code() const { return code_; }  // the SQLite result code

 private:
  int code_;
};

}  // namespace brenloc::storage
