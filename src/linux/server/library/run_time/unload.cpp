// Frees the memory of the C++ run time, which each shared library contains, when the library is unloaded.

// The run time's own names.
namespace __gnu_cxx {
void __freeres();
}

namespace {

/// The run time reserves memory for exceptions that are thrown when memory has run out. Nothing else frees it, so a
/// program that loads and unloads a library repeatedly would lose that memory each time.
[[gnu::destructor]] void release_memory_for_exceptions() {
    __gnu_cxx::__freeres();
}

}  // namespace
