// The part of the C++ run-time library that the tracker does without on Android.
//
// The library is linked statically. Its handler for exceptions that nobody catches names their
// type, for which it would bring the whole demangler, a third of the tracker. Called by that
// handler alone, when the process ends, on any thread.
#include <cstddef>

// Takes what the Itanium C++ ABI says ("Demangler API"); answers that it is no mangled name (-2),
// and the handler shows the name as it is.
extern "C" __attribute__((visibility("hidden"))) char* __cxa_demangle(  // NOLINT: the ABI's name
    const char* /*mangled_name*/, char* /*buffer*/, std::size_t* /*length*/, int* status) {
  constexpr int kNoMangledName = -2;
  if (status != nullptr) *status = kNoMangledName;
  return nullptr;
}
