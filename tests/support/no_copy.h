// NoCopy: the base of the test-support classes that own something of the
// whole process (a log sink, a directory) and so must not be copied.
#ifndef ZERVA_TESTS_SUPPORT_NO_COPY_H_
#define ZERVA_TESTS_SUPPORT_NO_COPY_H_

namespace zerva_test {

class NoCopy {
 public:
  NoCopy(const NoCopy&) = delete;
  NoCopy& operator=(const NoCopy&) = delete;

 protected:
  NoCopy() = default;
  ~NoCopy() = default;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_SUPPORT_NO_COPY_H_
