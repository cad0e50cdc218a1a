#include "diag/vem_exception.h"

#include <gtest/gtest.h>

namespace {

TEST(VemExceptionTest, WhatIsThePrefixFollowedByTheText) {
  CVEM_Exception e("x");
  EXPECT_STREQ(e.what(), "CVEM_Exception: x");
}

TEST(VemExceptionTest, IsCaughtAsStdException) {
  try {
    throw CVEM_Exception("record don't exist, index is 0");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "CVEM_Exception: record don't exist, index is 0");
    return;
  }
  FAIL() << "not caught";
}

TEST(VemExceptionTest, CopiesKeepTheText) {
  CVEM_Exception a("abc");
  CVEM_Exception b = a;
  EXPECT_STREQ(b.what(), "CVEM_Exception: abc");
}

}  // namespace
