// The C++ run time within each shared library, when the library is unloaded.

namespace __gnu_cxx {  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): it is the run time's own
void __freeres();      // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

namespace {

/// The run time keeps memory for exceptions that are thrown when there is no other. Nothing else gives it back, and a
/// program that loads and unloads a library again and again would lose it each time.
[[gnu::destructor]] void release_memory_for_exceptions() {
    __gnu_cxx::__freeres();
}

}  // namespace
