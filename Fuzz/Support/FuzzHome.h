// What every fuzzer needs around the product: a home of its own, and a way to end the process over a broken
// promise, so that the fuzzer keeps the input.
#pragma once

#include <string>
#include <string_view>

#include "Hook/State/SessionState.h"

// A fresh home, state directory and project for this process, as its environment, removed at its end. Every
// variable that the product reads is unset.
class FuzzHome {
 public:
  FuzzHome();
  ~FuzzHome();
  FuzzHome(const FuzzHome&) = delete;
  FuzzHome& operator=(const FuzzHome&) = delete;

  std::string home() const { return root_ + "/home"; }
  std::string project() const { return root_ + "/project"; }

  // Writes a file, whose directory is there.
  static void write(const std::string& path, std::string_view content);

  // A record of session "s" with a run, started now in the project directory.
  SessionState session() const;

 private:
  std::string root_;
};

// Ends the process with `promise` on standard error when it is not kept.
void require(bool kept, std::string_view promise);
