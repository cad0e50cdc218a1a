// CVEM_Exception: the one exception type of the module and the platform.
//
// It carries one text, stored as "CVEM_Exception: " + the text given, and
// answers it from what(). It is thrown by value and caught by reference.
// Everything is inline so that every binary (host libraries and plug-ins) can
// throw and catch it; g++ matches the type across shared libraries by name.
#ifndef ZERVA_DIAG_VEM_EXCEPTION_H_
#define ZERVA_DIAG_VEM_EXCEPTION_H_

#include <exception>
#include <string>

class CVEM_Exception : public std::exception {
 public:
  explicit CVEM_Exception(const std::string& text) : message("CVEM_Exception: " + text) {}
  ~CVEM_Exception() override {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};

#endif  // ZERVA_DIAG_VEM_EXCEPTION_H_
