// The C interface. Nothing that is thrown crosses it: everything thrown here derives from std::exception. What the
// system throws when a thread is cancelled does not, and goes on to the caller.
#include "shmnmpicture.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
#include "reader.h"
#include "source.h"

using picture::ErrorKind;
using picture_library::Reader;

namespace {

constexpr const char* no_memory = "out of memory; free some and try again";

/// What a caller knows as a shmnmpicture, which is never defined.
struct Opened {
    std::optional<Reader> reader;  ///< nothing if its arguments were invalid
    std::string answer;            ///< the text that was given last
    std::string error;
    const char* shown_error = "";  ///< `error`, or a text that needs no memory
};

class InvalidArgument : public std::runtime_error {
    using runtime_error::runtime_error;
};

/// Each kind of error that a reading program meets. The others are of changes.
int32_t result_of(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::invalid:
            return SHMNMPICTURE_ERR_INVALID;
        case ErrorKind::invalid_condition:
            return SHMNMPICTURE_ERR_INVALID_CONDITION;
        case ErrorKind::no_such_word:
            return SHMNMPICTURE_ERR_NO_SUCH_WORD;
        case ErrorKind::no_such_key:
            return SHMNMPICTURE_ERR_NO_SUCH_KEY;
        case ErrorKind::no_region:
            return SHMNMPICTURE_ERR_NO_REGION;
        case ErrorKind::lock_timeout:
            return SHMNMPICTURE_ERR_LOCK_TIMEOUT;
        case ErrorKind::not_a_dump:
            return SHMNMPICTURE_ERR_NOT_A_DUMP;
        case ErrorKind::not_whole:
            return SHMNMPICTURE_ERR_NOT_WHOLE;
        default:
            return SHMNMPICTURE_ERR_FAILED;
    }
}

int32_t failed(Opened& picture, int32_t result, const char* why) {
    try {
        picture.error = picture::as_typed(why);
        picture.shown_error = picture.error.c_str();
        return result;
    } catch (const std::bad_alloc&) {
        picture.shown_error = no_memory;
        return SHMNMPICTURE_ERR_NO_MEMORY;
    }
}

/// Does the work of a function on an opened picture. What it throws becomes the result.
template <typename Work>
int32_t guarded(shmnmpicture* handle, const Work& work) {
    if (!handle) return SHMNMPICTURE_ERR_ARGUMENT;
    Opened& picture = *reinterpret_cast<Opened*>(handle);
    try {
        work(picture);
        return SHMNMPICTURE_OK;
    } catch (const InvalidArgument& error) {
        return failed(picture, SHMNMPICTURE_ERR_ARGUMENT, error.what());
    } catch (const picture::Error& error) {
        return failed(picture, result_of(error.kind), error.what());
    } catch (const std::bad_alloc&) {
        picture.shown_error = no_memory;
        return SHMNMPICTURE_ERR_NO_MEMORY;
    } catch (const std::exception& error) {
        return failed(picture, SHMNMPICTURE_ERR_FAILED, error.what());
    }
}

/// @throws InvalidArgument
void expect_argument(const void* pointer, const char* name) {
    if (!pointer) throw InvalidArgument(std::string(name) + " is a null pointer; pass its address");
}

Reader& reader_of(Opened& picture) {
    if (!picture.reader) {
        throw InvalidArgument("the picture was opened with invalid arguments; open another with valid arguments");
    }
    return *picture.reader;
}

/// The options of a caller that may have been compiled with another version of the structure.
/// @throws InvalidArgument
shmnmpicture_options checked(const shmnmpicture_options* given) {
    constexpr uint32_t known_flags = SHMNMPICTURE_ALL_BYTES | SHMNMPICTURE_FORCE, largest = 4'096;
    shmnmpicture_options options{};
    options.size = sizeof options;
    if (!given) return options;
    if (given->size < sizeof options || given->size > largest) {
        throw InvalidArgument("invalid size of the options; set it to sizeof(shmnmpicture_options)");
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(given);
    if (std::any_of(bytes + sizeof options, bytes + given->size, [](unsigned char byte) { return byte != 0; })) {
        throw InvalidArgument("the options have members that this library does not know; install a newer library");
    }
    std::memcpy(&options, given, sizeof options);
    if ((options.flags & ~known_flags) != 0) {
        throw InvalidArgument("the options have flags that this library does not know; install a newer library");
    }
    return options;
}

template <typename Source>
int32_t open(shmnmpicture** out, const shmnmpicture_options* given, const char* file, const Source& source) {
    if (!out) return SHMNMPICTURE_ERR_ARGUMENT;
    *out = reinterpret_cast<shmnmpicture*>(new (std::nothrow) Opened);
    if (!*out) return SHMNMPICTURE_ERR_NO_MEMORY;
    return guarded(*out, [&](Opened& picture) {
        const shmnmpicture_options options = checked(given);
        const auto text = [](const char* name) { return std::string(name ? name : ""); };
        picture_library::SourceOptions how;
        if (options.lock_timeout_ms != 0) how.lock_timeout_ms = options.lock_timeout_ms;
        if (options.interval_ms != 0) how.interval_ms = options.interval_ms;
        how.credentials = {text(options.ca_file), text(options.cert_file), text(options.key_file)};
        const auto has = [&](uint32_t flag) { return (options.flags & flag) != 0; };
        picture.reader.emplace(source(how),
                               picture_library::ReaderOptions{
                                   .wanted = has(SHMNMPICTURE_ALL_BYTES) ? picture::Bytes::all : picture::Bytes::in_use,
                                   .force = has(SHMNMPICTURE_FORCE),
                                   .file = text(file)});
        picture.reader->update(0);
    });
}

/// Gives out a text that the picture keeps.
void give(Opened& picture, std::string answer, const char** text, size_t* size) {
    picture.answer = std::move(answer);
    *text = picture.answer.c_str();
    if (size) *size = picture.answer.size();
}

}  // namespace

const char* shmnmpicture_version(void) {
    return SHMNM_VERSION;
}

int32_t shmnmpicture_open_live(const shmnmpicture_options* options, shmnmpicture** picture) {
    return open(picture, options, nullptr, picture_library::live_source);
}

int32_t shmnmpicture_open_file(const char* file, const shmnmpicture_options* options, shmnmpicture** picture) {
    return open(picture, options, file, [&](const auto& how) {
        expect_argument(file, "file");
        return picture_library::file_source(how, file);
    });
}

int32_t shmnmpicture_open_address(const char* address, const shmnmpicture_options* options, shmnmpicture** picture) {
    return open(picture, options, nullptr, [&](const auto& how) {
        expect_argument(address, "address");
        return picture_library::address_source(how, address);
    });
}

int32_t shmnmpicture_update(shmnmpicture* picture, uint32_t wait_ms, int32_t* changed) {
    return guarded(picture, [&](Opened& opened) {
        const bool has_changed = reader_of(opened).update(wait_ms);
        if (changed) *changed = has_changed ? 1 : 0;
    });
}

int32_t shmnmpicture_json(shmnmpicture* picture, const char** text, size_t* size) {
    return guarded(picture, [&](Opened& opened) {
        expect_argument(text, "text");
        const std::string& status = reader_of(opened).status();
        *text = status.c_str();
        if (size) *size = status.size();
    });
}

int32_t shmnmpicture_value(shmnmpicture* picture, const char* key, const char** text, size_t* size) {
    return guarded(picture, [&](Opened& opened) {
        expect_argument(key, "key");
        expect_argument(text, "text");
        give(opened, reader_of(opened).value(key), text, size);
    });
}

int32_t shmnmpicture_holds(shmnmpicture* picture, const char* condition, int32_t* holds, const char** unmet) {
    return guarded(picture, [&](Opened& opened) {
        expect_argument(condition, "condition");
        expect_argument(holds, "holds");
        std::string reasons = reader_of(opened).unmet(condition);
        const bool are_met = reasons.empty();
        if (unmet) give(opened, std::move(reasons), unmet, nullptr);
        *holds = are_met ? 1 : 0;
    });
}

int32_t shmnmpicture_findings(shmnmpicture* picture, const char** text, size_t* size) {
    return guarded(picture, [&](Opened& opened) {
        expect_argument(text, "text");
        Reader& reader = reader_of(opened);
        if (reader.lacks_bytes()) {
            throw InvalidArgument("findings need all bytes; open the picture with SHMNMPICTURE_ALL_BYTES");
        }
        give(opened, reader.findings(), text, size);
    });
}

int32_t shmnmpicture_warning(shmnmpicture* picture, const char** text) {
    return guarded(picture, [&](Opened& opened) {
        expect_argument(text, "text");
        *text = reader_of(opened).warning().c_str();
    });
}

const char* shmnmpicture_error(const shmnmpicture* picture) {
    return picture ? reinterpret_cast<const Opened*>(picture)->shown_error
                   : "there is no picture: a pointer is null, or memory ran out";
}

void shmnmpicture_free(shmnmpicture* picture) {
    delete reinterpret_cast<Opened*>(picture);
}
