/**
 * @file shmnm.hpp
 * The functions of shmnm.h for C++17 and later: types that release what they take, locks with chrono time-outs, error
 * codes and exceptions, lists as vectors.
 *
 * What holds for everything here unless it says otherwise:
 *  - Calls: each operation makes the calls of shmnm.h that its description names, in that order, and no others. In
 *    particular nothing takes the lock in secret. The trace log is the one that the C calls write.
 *  - Errors: each operation that can fail has two forms, as in std::filesystem. The form with a std::error_code& as its
 *    last argument sets it, to errc and shmnm::category() or to no error, and returns a default value on failure. The
 *    other form throws Error. It is not declared if exceptions are switched off.
 *  - Failure: leaves the region as it was, exactly as far as the C function does.
 *  - Threads: any thread may call any function. An object is used by one thread at a time. A ReadLock or a WriteLock is
 *    used only by the thread that took it.
 *  - Locks: hold a ReadLock or a WriteLock around steps that must be consistent.
 *  - Memory: only operations that return a vector allocate. Nothing points into the region.
 *  - Cost: the call of the C function.
 */
#ifndef SHMNM_HPP
#define SHMNM_HPP

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "shmnm.h"

namespace shmnm {

/**
 * @defgroup shmnm_cpp_errors Errors
 * @{
 */

/** The result codes of shmnm.h as error codes; their messages are the meanings that the manual gives. */
enum class errc : int {
    notinit = SHMNM_ERR_NOTINIT,         /**< SHMNM_ERR_NOTINIT */
    param = SHMNM_ERR_PARAM,             /**< SHMNM_ERR_PARAM; also a Name that is too long to be copied */
    notfound = SHMNM_ERR_NOTFOUND,       /**< SHMNM_ERR_NOTFOUND */
    buffer = SHMNM_ERR_BUFFER,           /**< SHMNM_ERR_BUFFER */
    xmlinit = SHMNM_ERR_XMLINIT,         /**< SHMNM_ERR_XMLINIT */
    createmap = SHMNM_ERR_CREATEMAP,     /**< SHMNM_ERR_CREATEMAP */
    mapview = SHMNM_ERR_MAPVIEW,         /**< SHMNM_ERR_MAPVIEW */
    openmap = SHMNM_ERR_OPENMAP,         /**< SHMNM_ERR_OPENMAP */
    countover = SHMNM_ERR_COUNTOVER,     /**< SHMNM_ERR_COUNTOVER */
    rscover = SHMNM_ERR_RSCOVER,         /**< SHMNM_ERR_RSCOVER */
    loadinfo = SHMNM_ERR_LOADINFO,       /**< SHMNM_ERR_LOADINFO */
    loadconfig = SHMNM_ERR_LOADCONFIG,   /**< SHMNM_ERR_LOADCONFIG */
    exist = SHMNM_ERR_EXIST,             /**< SHMNM_ERR_EXIST */
    addsvstat = SHMNM_ERR_ADDSVSTAT,     /**< SHMNM_ERR_ADDSVSTAT */
    rmsvstat = SHMNM_ERR_RMSVSTAT,       /**< SHMNM_ERR_RMSVSTAT */
    index = SHMNM_ERR_INDEX,             /**< SHMNM_ERR_INDEX */
    lock = SHMNM_ERR_LOCK,               /**< SHMNM_ERR_LOCK; also a lock given as proof that is not held */
    installpath = SHMNM_ERR_INSTALLPATH, /**< SHMNM_ERR_INSTALLPATH */
};

/**
 * The category of errc, named "shmnm".
 *
 * A shared library that hides its symbols has a category of its own: compare codes in the file that obtained them.
 */
[[nodiscard]] inline const std::error_category& category() noexcept;

/** The error code of a result. @return a code of category() */
[[nodiscard]] inline std::error_code make_error_code(errc result) noexcept {
    return {static_cast<int>(result), category()};
}

#ifdef __cpp_exceptions
/** What is thrown: what() names the C function, the names that it was given, and the meaning of its result. */
class Error : public std::system_error {
  public:
    using std::system_error::system_error;
};
#endif

/** @} */

namespace detail {

class Category final : public std::error_category {
  public:
    [[nodiscard]] const char* name() const noexcept override { return "shmnm"; }
    [[nodiscard]] std::string message(int value) const override {
        switch (value) {
#define SHMNM_HPP_MEANING(name, number, meaning) \
    case number:                                 \
        return meaning;
            SHMNM_RESULTS(SHMNM_HPP_MEANING)
#undef SHMNM_HPP_MEANING
            default:
                return "unknown result " + std::to_string(value);
        }
    }
    [[nodiscard]] std::error_condition default_error_condition(int value) const noexcept override {
        if (value == SHMNM_ERR_PARAM) return std::errc::invalid_argument;
        if (value == SHMNM_ERR_LOCK) return std::errc::timed_out;
        return {value, *this};
    }
};

/* Each function of shmnm.h as a type, so that one body serves several functions and an error can name its function. */
namespace c {
#define SHMNM_HPP_FUNCTION(function)                                 \
    struct function {                                                \
        static constexpr const char* name = #function;               \
        template <class... Arguments>                                \
        static std::uint32_t call(Arguments... arguments) noexcept { \
            return ::function(arguments...);                         \
        }                                                            \
    }
SHMNM_HPP_FUNCTION(shmnm_create);
SHMNM_HPP_FUNCTION(shmnm_attach);
SHMNM_HPP_FUNCTION(shmnm_detach);
SHMNM_HPP_FUNCTION(shmnm_delete);
SHMNM_HPP_FUNCTION(shmnm_clear);
SHMNM_HPP_FUNCTION(shmnm_dump);
SHMNM_HPP_FUNCTION(shmnm_rolock);
SHMNM_HPP_FUNCTION(shmnm_rounlock);
SHMNM_HPP_FUNCTION(shmnm_rwlock);
SHMNM_HPP_FUNCTION(shmnm_rwunlock);
SHMNM_HPP_FUNCTION(shmnm_setmaxvalue_ex);
SHMNM_HPP_FUNCTION(shmnm_getmaxvalue_ex);
SHMNM_HPP_FUNCTION(shmnm_sethbinfo_ex);
SHMNM_HPP_FUNCTION(shmnm_gethbinfo_ex);
SHMNM_HPP_FUNCTION(shmnm_setwaitstat);
SHMNM_HPP_FUNCTION(shmnm_getwaitstat);
SHMNM_HPP_FUNCTION(shmnm_setbwflag);
SHMNM_HPP_FUNCTION(shmnm_getbwflag);
SHMNM_HPP_FUNCTION(shmnm_setbwflagdisk);
SHMNM_HPP_FUNCTION(shmnm_getbwflagdisk);
SHMNM_HPP_FUNCTION(shmnm_setclstat);
SHMNM_HPP_FUNCTION(shmnm_getclstat);
SHMNM_HPP_FUNCTION(shmnm_addnode);
SHMNM_HPP_FUNCTION(shmnm_rmnode);
SHMNM_HPP_FUNCTION(shmnm_modifynode);
SHMNM_HPP_FUNCTION(shmnm_enumnode);
SHMNM_HPP_FUNCTION(shmnm_getnodepri);
SHMNM_HPP_FUNCTION(shmnm_getnodename);
SHMNM_HPP_FUNCTION(shmnm_setnodestat);
SHMNM_HPP_FUNCTION(shmnm_getnodestat);
SHMNM_HPP_FUNCTION(shmnm_setnodestat_nw);
SHMNM_HPP_FUNCTION(shmnm_getnodestat_nw);
SHMNM_HPP_FUNCTION(shmnm_setdownnotifystat);
SHMNM_HPP_FUNCTION(shmnm_getdownnotifystat);
SHMNM_HPP_FUNCTION(shmnm_setisolateflag);
SHMNM_HPP_FUNCTION(shmnm_getisolateflag);
SHMNM_HPP_FUNCTION(shmnm_setpingstat);
SHMNM_HPP_FUNCTION(shmnm_getpingstat);
SHMNM_HPP_FUNCTION(shmnm_setholdstat);
SHMNM_HPP_FUNCTION(shmnm_getholdstat);
SHMNM_HPP_FUNCTION(shmnm_getnodecombstat);
SHMNM_HPP_FUNCTION(shmnm_chkalivesv);
SHMNM_HPP_FUNCTION(shmnm_addhbrsc);
SHMNM_HPP_FUNCTION(shmnm_addnprsc);
SHMNM_HPP_FUNCTION(shmnm_rmhbrsc);
SHMNM_HPP_FUNCTION(shmnm_rmnprsc);
SHMNM_HPP_FUNCTION(shmnm_modifyhbrsc);
SHMNM_HPP_FUNCTION(shmnm_modifynprsc);
SHMNM_HPP_FUNCTION(shmnm_gethbrscpri);
SHMNM_HPP_FUNCTION(shmnm_getnprscpri);
SHMNM_HPP_FUNCTION(shmnm_gethbrscinfo);
SHMNM_HPP_FUNCTION(shmnm_getnprscinfo);
SHMNM_HPP_FUNCTION(shmnm_enumhbtype);
SHMNM_HPP_FUNCTION(shmnm_enumnptype);
SHMNM_HPP_FUNCTION(shmnm_enumhbrsc);
SHMNM_HPP_FUNCTION(shmnm_enumnprsc);
SHMNM_HPP_FUNCTION(shmnm_sethbrscstat);
SHMNM_HPP_FUNCTION(shmnm_setnprscstat);
SHMNM_HPP_FUNCTION(shmnm_gethbrscstat);
SHMNM_HPP_FUNCTION(shmnm_getnprscstat);
SHMNM_HPP_FUNCTION(shmnm_sethbrscsvstat);
SHMNM_HPP_FUNCTION(shmnm_setnprscsvstat);
SHMNM_HPP_FUNCTION(shmnm_gethbrscsvstat);
SHMNM_HPP_FUNCTION(shmnm_getnprscsvstat);
SHMNM_HPP_FUNCTION(shmnm_enumhbrscsvstat);
SHMNM_HPP_FUNCTION(shmnm_enumnprscsvstat);
SHMNM_HPP_FUNCTION(shmnm_enumsvhbrscstat);
SHMNM_HPP_FUNCTION(shmnm_enumsvnprscstat);
SHMNM_HPP_FUNCTION(shmnm_settypehbstat);
SHMNM_HPP_FUNCTION(shmnm_settypenpstat);
SHMNM_HPP_FUNCTION(shmnm_sethbdescript);
SHMNM_HPP_FUNCTION(shmnm_setnpdescript);
SHMNM_HPP_FUNCTION(shmnm_gethbdescript);
SHMNM_HPP_FUNCTION(shmnm_getnpdescript);
SHMNM_HPP_FUNCTION(shmnm_addhbrscsvstat);
SHMNM_HPP_FUNCTION(shmnm_addnprscsvstat);
SHMNM_HPP_FUNCTION(shmnm_rmhbrscsvstat);
SHMNM_HPP_FUNCTION(shmnm_rmnprscsvstat);
SHMNM_HPP_FUNCTION(shmnm_setnpsimu);
SHMNM_HPP_FUNCTION(shmnm_getnpsimu);
SHMNM_HPP_FUNCTION(shmnm_getnpsimuflag);
SHMNM_HPP_FUNCTION(shmnm_setrscsvstat_nw);
SHMNM_HPP_FUNCTION(shmnm_getrscsvstat_nw);
SHMNM_HPP_FUNCTION(shmnm_enumrscsvstat_nw);
SHMNM_HPP_FUNCTION(shmnm_enumsvrscstat_nw);
SHMNM_HPP_FUNCTION(shmnm_setfstrscstat);
SHMNM_HPP_FUNCTION(shmnm_getfstrscstat);
SHMNM_HPP_FUNCTION(shmnm_setfstdescript);
SHMNM_HPP_FUNCTION(shmnm_getfstdescript);
SHMNM_HPP_FUNCTION(shmnm_setfstrscpid);
SHMNM_HPP_FUNCTION(shmnm_getfstrscpid);
#undef SHMNM_HPP_FUNCTION
}  // namespace c

inline const char* text_of(const char* text) noexcept {
    return text;
}
template <class Other>
const char* text_of(Other) noexcept {
    return nullptr;
}

/// Stores a failure. Out of line, so that a call that succeeds costs nothing more.
[[gnu::cold, gnu::noinline]] inline void store(std::error_code& error, std::uint32_t result) noexcept {
    error = make_error_code(static_cast<errc>(result));
}

/// Clears an error of an earlier call. Out of line, because most codes are clear already.
[[gnu::cold, gnu::noinline]] inline void forget(std::error_code& error) noexcept {
    error.clear();
}

/// Where the result of a call goes: into the caller's error code.
struct Into {
    std::error_code& error;

    template <class Function, class... Arguments>
    bool take(std::uint32_t result, Arguments...) const noexcept {
        if (result == SHMNM_OK) {
            if (error) forget(error);
            return true;
        }
        store(error, result);
        return false;
    }
};

#ifdef __cpp_exceptions
/// Throws a failure.
template <class... Texts>
[[noreturn, gnu::cold, gnu::noinline]] void raise(std::uint32_t result, const char* function, Texts... texts) {
    std::string what = function;
    const char* separator = "(";
    for (const char* const text : {static_cast<const char*>(nullptr), texts...}) {
        if (!text) continue;
        what.append(separator).append("\"").append(text).append("\"");
        separator = ", ";
    }
    if (*separator == ',') what.append(")");
    throw Error(make_error_code(static_cast<errc>(result)), what);
}

/// Where the result of a call goes: into an exception.
struct Throw {
    template <class Function, class... Arguments>
    bool take(std::uint32_t result, Arguments... arguments) const {
        if (result != SHMNM_OK) raise(result, Function::name, text_of(arguments)...);
        return true;
    }
};
#endif

/// Calls a function and takes its result. @return whether it succeeded
template <class Function, class How, class... Arguments>
bool call(How how, Arguments... arguments) {
    return how.template take<Function>(Function::call(arguments...), arguments...);
}

/// Calls a function whose last argument receives a number. @return the number; 0 after a failure
template <class Function, class Number, class How, class... Arguments>
Number number(How how, Arguments... arguments) {
    Number value{};  // a failure leaves it as it is
    call<Function>(how, arguments..., &value);
    return value;
}

/// A size as C takes it.
template <class Size>
Size limited(std::size_t size) noexcept {
    return static_cast<Size>(std::min<std::size_t>(size, 0x7FFFFFFC));
}

}  // namespace detail

inline const std::error_category& category() noexcept {
    static const detail::Category instance;
    return instance;
}

/**
 * @defgroup shmnm_cpp_values Names, states and ranges
 * @{
 */

/**
 * A text argument: the name of a server, or the type or the name of a resource.
 *
 * A `const char*` and a `const std::string&` pass through: the Name points to the caller's text, which must outlive it.
 * A std::string_view and a temporary std::string are copied into the Name itself, so they may have at most 255 bytes
 * and no NUL. A text that cannot be copied makes an invalid Name. Every operation that is given an invalid Name fails
 * with errc::param, and so does every operation of an object that was made of it.
 */
class Name {
  public:
    /** The most bytes that a text to be copied may have. */
    static constexpr std::size_t longest = 255;

    /** Passes a NUL-terminated text through; null makes an invalid Name. */
    Name(const char* text) noexcept : text_(text) {}
    /** Passes a text through. Its first NUL ends it. */
    Name(const std::string& text) noexcept : text_(text.c_str()) {}
    /** Copies a text. */
    Name(std::string_view text) noexcept : text_(copied(text)) {}
    /** Copies the text of a temporary. */
    Name(std::string&& text) noexcept : text_(copied(text)) {}
    /** There is no name without a text. */
    Name(std::nullptr_t) = delete;

    /** Points to the same text, or has a copy of its own. */
    Name(const Name& other) noexcept : text_(other.is_copy() ? copied(other.text_) : other.text_) {}
    /** Points to the same text, or has a copy of its own. */
    Name& operator=(const Name& other) noexcept {
        if (this != &other) text_ = other.is_copy() ? copied(other.text_) : other.text_;
        return *this;
    }
    ~Name() = default;

    /** Whether there is a text. */
    [[nodiscard]] bool valid() const noexcept { return text_ != nullptr; }
    /** The text; null if the Name is invalid. */
    [[nodiscard]] const char* c_str() const noexcept { return text_; }

  private:
    [[nodiscard]] bool is_copy() const noexcept { return text_ == copy_; }
    const char* copied(std::string_view text) noexcept {
        if (text.size() > longest || text.find('\0') != std::string_view::npos) return nullptr;
        *std::copy(text.begin(), text.end(), copy_) = '\0';
        return copy_;
    }

    const char* text_;
    char copy_[longest + 1];
};

/** The value of a state word or a flag: opaque, except where a word says what its values mean. */
struct State {
    std::uint32_t value = 0; /**< the word */

    /** 1, which means in `nodestat` that the server is alive. */
    static const State alive;
    /** 2, which the library writes into the states of new servers and resources. */
    static const State initial;

    /** Compares the values. */
    friend constexpr bool operator==(State left, State right) noexcept { return left.value == right.value; }
    /** Compares the values. */
    friend constexpr bool operator!=(State left, State right) noexcept { return left.value != right.value; }
};
inline constexpr State State::alive{1};
inline constexpr State State::initial{2};

/** The priority of a server, which also identifies the server in the states of resources. */
struct Priority {
    std::int32_t value = 0; /**< the number */

    /** Compares the values. */
    friend constexpr bool operator==(Priority left, Priority right) noexcept { return left.value == right.value; }
    /** Compares the values. */
    friend constexpr bool operator!=(Priority left, Priority right) noexcept { return left.value != right.value; }
};

/**
 * Elements that lie one after the other: made of any array, vector or span whose elements are one of `Like`.
 *
 * Points to the caller's elements, so it is meant as an argument only.
 */
template <class Element, class... Like>
class Range {
  public:
    /** Refers to the elements of a container or an array. */
    template <class Container, class Found = std::remove_pointer_t<decltype(std::data(std::declval<Container&>()))>,
              std::enable_if_t<(std::is_const_v<Element> ||
                                !std::is_const_v<Found>)&&(std::is_same_v<std::remove_const_t<Found>, Like> || ...),
                               int> = 0>
    Range(Container&& container) noexcept
        : data_(reinterpret_cast<Element*>(std::data(container))), size_(std::size(container)) {}

    /** The first element. */
    [[nodiscard]] Element* data() const noexcept { return data_; }
    /** The number of elements. */
    [[nodiscard]] std::size_t size() const noexcept { return size_; }

  private:
    Element* data_;
    std::size_t size_;
};

/** Words that are written: elements of type State or std::uint32_t. */
using Words = Range<std::uint32_t, std::uint32_t, State>;
/** Words that are read: elements of type State or std::uint32_t. */
using ConstWords = Range<const std::uint32_t, std::uint32_t, State>;
/** Bytes that are written: elements of a character type or std::byte. */
using Bytes = Range<std::uint8_t, std::uint8_t, std::byte, char, signed char>;
/** Bytes that are read: elements of a character type or std::byte. */
using ConstBytes = Range<const std::uint8_t, std::uint8_t, std::byte, char, signed char>;

static_assert(sizeof(State) == sizeof(std::uint32_t) && std::is_standard_layout_v<State>);

/** @} */

/**
 * @defgroup shmnm_cpp_life The region's life
 *
 * A process either creates the region or attaches to it. The library counts attaches, but not creations: a process that
 * has created the region unmaps it with the first shmnm_detach() or shmnm_delete(), whoever makes that call. So do not
 * use an Attachment of attach() beside one of create(), nor two of create().
 * @{
 */

/**
 * The region, mapped in this process for as long as this object lives.
 *
 * Its destructor calls shmnm_detach() after attach() and shmnm_delete() after create(). Give it up only when no thread
 * is inside a call that uses the region, and after the last lock.
 */
class [[nodiscard]] Attachment {
  public:
    /** Holds nothing. */
    Attachment() noexcept = default;
    /** Takes over what `other` holds. */
    Attachment(Attachment&& other) noexcept : origin_(std::exchange(other.origin_, Origin::none)) {}
    /** Gives up what this object holds and takes over what `other` holds. */
    Attachment& operator=(Attachment&& other) noexcept {
        if (this != &other) {
            end();
            origin_ = std::exchange(other.origin_, Origin::none);
        }
        return *this;
    }
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;
    ~Attachment() { end(); }

    /** Whether this object holds the region. */
    [[nodiscard]] explicit operator bool() const noexcept { return origin_ != Origin::none; }

    /** Gives the region up before the destructor does, and reports the result. Does nothing if nothing is held. */
    void close(std::error_code& error) noexcept {
        detail::Into how{error};
        close_as(how);
    }

    /** Attaches: shmnm_attach(). */
    friend Attachment attach(std::error_code& error) noexcept;
    /** Creates: shmnm_create(). */
    friend Attachment create(std::error_code& error) noexcept;

#ifdef __cpp_exceptions
    /** Gives the region up; throws Error. */
    void close() {
        close_as(detail::Throw{});
    }

    friend Attachment attach();
    friend Attachment create();
#endif

  private:
    enum class Origin : unsigned char { none, attached, created };

    explicit Attachment(Origin origin) noexcept : origin_(origin) {}
    void end() noexcept {
        std::error_code ignored;
        close(ignored);
    }
    template <class How>
    bool close_as(How how) {
        switch (std::exchange(origin_, Origin::none)) {
            case Origin::attached:
                return detail::call<detail::c::shmnm_detach>(how);
            case Origin::created:
                return detail::call<detail::c::shmnm_delete>(how);
            case Origin::none:
                break;
        }
        return how.template take<detail::c::shmnm_detach>(SHMNM_OK);
    }
    template <class Function, class How>
    static Attachment made(Origin origin, How how) {
        return Attachment(detail::call<Function>(how) ? origin : Origin::none);
    }

    Origin origin_ = Origin::none;
};

/** Maps the region that another process created: shmnm_attach(). @return an Attachment that holds nothing on failure */
[[nodiscard]] inline Attachment attach(std::error_code& error) noexcept {
    return Attachment::made<detail::c::shmnm_attach>(Attachment::Origin::attached, detail::Into{error});
}
/** Creates the region from the configuration, or uses the one that exists: shmnm_create(). @return as attach() */
[[nodiscard]] inline Attachment create(std::error_code& error) noexcept {
    return Attachment::made<detail::c::shmnm_create>(Attachment::Origin::created, detail::Into{error});
}
/** Fills the whole region with zeros: shmnm_clear(). Hold a WriteLock. */
inline void clear(std::error_code& error) noexcept {
    detail::call<detail::c::shmnm_clear>(detail::Into{error});
}

#ifdef __cpp_exceptions
/** As attach(std::error_code&); throws Error. */
[[nodiscard]] inline Attachment attach() {
    return Attachment::made<detail::c::shmnm_attach>(Attachment::Origin::attached, detail::Throw{});
}
/** As create(std::error_code&); throws Error. */
[[nodiscard]] inline Attachment create() {
    return Attachment::made<detail::c::shmnm_create>(Attachment::Origin::created, detail::Throw{});
}
/** As clear(std::error_code&); throws Error. */
inline void clear() {
    detail::call<detail::c::shmnm_clear>(detail::Throw{});
}
#endif

/** @} */

/**
 * @defgroup shmnm_cpp_lock The lock
 *
 * One lock for all processes; reading and writing take the same lock. It belongs to the thread that took it, which may
 * take it again. If a thread ends while it holds the lock, the lock passes to the next thread that takes it.
 * @{
 */

/** Asks a lock to wait without limit. */
struct forever_t {
    explicit forever_t() = default;
};
/** Asks a lock to wait without limit: `shmnm::WriteLock lock(shmnm::forever);`. */
inline constexpr forever_t forever{};

/** What ReadLock and WriteLock have in common: they are proof that the lock is held. */
class Lock {
  public:
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    /** Whether the lock is held through this object. */
    [[nodiscard]] bool owns_lock() const noexcept { return times_ > 0; }
    /** Whether the lock is held through this object. */
    [[nodiscard]] explicit operator bool() const noexcept { return owns_lock(); }

  protected:
    Lock() = default;
    ~Lock() = default;

    unsigned times_ = 0;  ///< how often this object has taken the lock
};

namespace detail {

/// A time-out in milliseconds, rounded up, so that only a time-out of zero or less does not wait. It never becomes the
/// number that means no limit.
template <class Representation, class Period>
constexpr std::uint32_t milliseconds(const std::chrono::duration<Representation, Period>& timeout) noexcept {
    constexpr std::uint32_t longest = 0xFFFFFFFE;
    const double exact = std::chrono::duration<double, std::milli>(timeout).count();
    if (!(exact > 0)) return 0;
    if (exact >= longest) return longest;
    const auto whole = static_cast<std::uint32_t>(exact);
    return whole < exact ? whole + 1 : whole;
}

}  // namespace detail

/**
 * Holds the lock: use it as ReadLock or WriteLock.
 *
 * The object counts how often it has taken the lock and releases it as often, at the latest in its destructor. Use it
 * only in the thread that took the lock: a release by another thread has no effect, and the lock stays taken until its
 * thread ends.
 *
 * It also meets the requirements of a mutex with time-outs, so std::unique_lock, std::lock_guard and std::scoped_lock
 * can take it; make it with std::defer_lock then. Unlike a std::mutex it belongs to one thread: each thread has its
 * own.
 *
 * A time-out is a duration, rounded up to milliseconds. Zero or less tries once without waiting. The longest time-out
 * is 49 days; `forever` waits without limit.
 */
template <class Take, class Release>
class BasicLock final : public Lock {
  public:
    /** Takes the lock, however long that takes. */
    [[nodiscard]] explicit BasicLock(forever_t) noexcept { lock(); }
    /** Leaves the lock alone. */
    explicit BasicLock(std::defer_lock_t) noexcept {}
    /** Takes the lock if it is free. Ask owns_lock(). */
    [[nodiscard]] explicit BasicLock(std::try_to_lock_t) noexcept { static_cast<void>(try_lock()); }
    /** Takes the lock within a time. If that fails the error is errc::lock, and the lock is not held. */
    template <class Representation, class Period>
    BasicLock(const std::chrono::duration<Representation, Period>& timeout, std::error_code& error) noexcept {
        take(detail::Into{error}, detail::milliseconds(timeout));
    }
#ifdef __cpp_exceptions
    /** Takes the lock within a time; throws Error. */
    template <class Representation, class Period>
    [[nodiscard]] explicit BasicLock(const std::chrono::duration<Representation, Period>& timeout) {
        take(detail::Throw{}, detail::milliseconds(timeout));
    }
#endif
    /** Releases what is held. */
    ~BasicLock() {
        while (owns_lock()) unlock();
    }
    BasicLock(const BasicLock&) = delete;
    BasicLock& operator=(const BasicLock&) = delete;

    /** Takes the lock, however long that takes. */
    void lock() noexcept {
        Take::call(std::uint32_t{0xFFFFFFFF});  // can only succeed: the C function reports nothing but a time-out
        ++times_;
    }
    /** Takes the lock if it is free. @return whether it was taken */
    [[nodiscard]] bool try_lock() noexcept {
        return try_for(0);
    }
    /** Takes the lock within a time. @return whether it was taken */
    template <class Representation, class Period>
    [[nodiscard]] bool try_lock_for(const std::chrono::duration<Representation, Period>& timeout) noexcept {
        return try_for(detail::milliseconds(timeout));
    }
    /** Takes the lock until a time. @return whether it was taken */
    template <class Clock, class Duration>
    [[nodiscard]] bool try_lock_until(const std::chrono::time_point<Clock, Duration>& end) noexcept {
        return try_lock_for(end - Clock::now());
    }
    /** Releases the lock once; does nothing if it is not held through this object. */
    void unlock() noexcept {
        if (!owns_lock()) return;
        --times_;
        Release::call();
    }

  private:
    [[nodiscard]] bool try_for(std::uint32_t timeout_ms) noexcept {
        if (Take::call(timeout_ms) != SHMNM_OK) return false;
        ++times_;
        return true;
    }
    template <class How>
    bool take(How how, std::uint32_t timeout_ms) {
        if (!detail::call<Take>(how, timeout_ms)) return false;
        ++times_;
        return true;
    }
};

/** The lock, taken for reading: shmnm_rolock(), shmnm_rounlock(). */
using ReadLock = BasicLock<detail::c::shmnm_rolock, detail::c::shmnm_rounlock>;
/** The lock, taken for writing: shmnm_rwlock(), shmnm_rwunlock(). */
using WriteLock = BasicLock<detail::c::shmnm_rwlock, detail::c::shmnm_rwunlock>;

/**
 * An argument of lists: a lock that is held, or nothing.
 *
 * A list is measured and then filled. With a lock both calls see the same region: they are made once. Without a lock
 * they are repeated when the size has changed between them. A lock that is not held, because its time-out passed, is an
 * error: errc::lock.
 */
class Held {
  public:
    /** No lock. */
    Held() noexcept = default;
    /** A lock. */
    Held(const Lock& lock) noexcept : lock_(&lock) {}

    /** Whether a lock was given. */
    [[nodiscard]] explicit operator bool() const noexcept { return lock_ != nullptr; }
    /** Whether a lock was given that is not held. */
    [[nodiscard]] bool refuted() const noexcept { return lock_ && !lock_->owns_lock(); }

  private:
    const Lock* lock_ = nullptr;
};

/** @} */

namespace detail {

/// Lists texts. The calls are repeated, with more room each time, while a list without a lock outgrows what was
/// measured.
template <class Function, class How, class... Arguments>
std::vector<std::string> texts(Held held, How how, Arguments... arguments) {
    std::vector<std::string> list;
    if (held.refuted()) {
        how.template take<Function>(SHMNM_ERR_LOCK);
        return list;
    }
    std::vector<char> buffer;
    std::uint32_t size = 0, result = SHMNM_ERR_BUFFER;
    do {
        if (!call<Function>(how, arguments..., nullptr, &size)) return list;
        buffer.resize(limited<std::size_t>(std::max<std::size_t>(size, 2 * buffer.size() + 2)));
        size = static_cast<std::uint32_t>(buffer.size());
        result = Function::call(arguments..., buffer.data(), &size);
    } while (result == SHMNM_ERR_BUFFER && !held && buffer.size() < limited<std::size_t>(SIZE_MAX));
    if (!how.template take<Function>(result, arguments...)) return list;

    // Each text has its NUL, and one NUL more ends the list. A list of two NULs is empty.
    const char *text = buffer.data(), *const end = text + size - 1;
    if (size <= 2 && *text == '\0') return list;
    list.reserve(static_cast<std::size_t>(std::count(text, end, '\0')));
    while (text < end) {
        const char* const nul = std::find(text, end, '\0');
        list.emplace_back(text, nul);
        text = nul + 1;
    }
    return list;
}

/// The place for the words of a listing. C takes null for a question, so an empty range has another address.
struct Place {
    std::uint32_t* words;
    std::uint32_t size;

    explicit Place(const Words& range) noexcept
        : words(range.size() > 0 ? range.data() : &none_), size(limited<std::uint32_t>(4 * range.size())) {}
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() = default;

  private:
    std::uint32_t none_ = 0;
};

/// Measures a listing of words and fills the place that `provide(count)` gives. A column does not say how many words it
/// wrote, so without a lock it is measured once more.
template <class Function, bool is_column, class How, class Provide, class... Arguments>
std::size_t words(Held held, How how, const Provide& provide, Arguments... arguments) {
    if (held.refuted()) {
        how.template take<Function>(SHMNM_ERR_LOCK);
        return 0;
    }
    for (;;) {
        std::uint32_t needed = 0;
        if (!call<Function>(how, arguments..., nullptr, &needed)) return 0;
        Place place(provide(needed / sizeof(std::uint32_t)));
        const std::uint32_t room = place.size;
        const std::uint32_t result = Function::call(arguments..., place.words, &place.size);
        if (result == SHMNM_ERR_BUFFER && needed <= room && !held) continue;
        if (!how.template take<Function>(result, arguments...)) return 0;
        if constexpr (!is_column) return place.size / sizeof(std::uint32_t);
        if (held) return needed / sizeof(std::uint32_t);
        std::uint32_t after = 0;
        if (!call<Function>(how, arguments..., nullptr, &after)) return 0;
        if (after == needed) return needed / sizeof(std::uint32_t);
    }
}

/// As words(), into a vector.
template <class Function, bool is_column, class How, class... Arguments>
std::vector<State> word_list(Held held, How how, Arguments... arguments) {
    std::vector<State> list;
    const auto provide = [&](std::size_t count) -> Words {
        list.resize(count);
        return list;
    };
    list.resize(words<Function, is_column>(held, how, provide, arguments...));
    return list;
}

/// The functions of the hb resources.
struct Hb {
    using Add = c::shmnm_addhbrsc;
    using Remove = c::shmnm_rmhbrsc;
    using SetPriority = c::shmnm_modifyhbrsc;
    using GetPriority = c::shmnm_gethbrscpri;
    using FindType = c::shmnm_gethbrscinfo;
    using ListTypes = c::shmnm_enumhbtype;
    using ListNames = c::shmnm_enumhbrsc;
    using SetAll = c::shmnm_settypehbstat;
    using SetDescription = c::shmnm_sethbdescript;
    using GetDescription = c::shmnm_gethbdescript;
    using OpenColumn = c::shmnm_addhbrscsvstat;
    using CloseColumn = c::shmnm_rmhbrscsvstat;
};

/// The functions of the np resources.
struct Np {
    using Add = c::shmnm_addnprsc;
    using Remove = c::shmnm_rmnprsc;
    using SetPriority = c::shmnm_modifynprsc;
    using GetPriority = c::shmnm_getnprscpri;
    using FindType = c::shmnm_getnprscinfo;
    using ListTypes = c::shmnm_enumnptype;
    using ListNames = c::shmnm_enumnprsc;
    using SetAll = c::shmnm_settypenpstat;
    using SetDescription = c::shmnm_setnpdescript;
    using GetDescription = c::shmnm_getnpdescript;
    using OpenColumn = c::shmnm_addnprscsvstat;
    using CloseColumn = c::shmnm_rmnprscsvstat;
};

}  // namespace detail

/**
 * @defgroup shmnm_cpp_words State words
 *
 * Each word is a constant with a type of its own, named as in the C functions: `alpha.set(shmnm::nodestat,
 * shmnm::State::alive)` calls shmnm_setnodestat(). A word of the wrong kind does not compile.
 * @{
 */

/** A word of the whole cluster. */
template <class Get, class Set>
struct ClusterWord {};
/** A word of a server. */
template <class Get, class Set>
struct ServerWord {};
/** A resource's own word. */
template <class Kind, class Get, class Set>
struct ResourceWord {};
/** A word that a resource has for each server: a row of the resource, a column of the server. */
template <class Kind, class Get, class Set, class Row, class Column>
struct PairWord {};

/** The wait state: shmnm_getwaitstat(), shmnm_setwaitstat(). */
inline constexpr ClusterWord<detail::c::shmnm_getwaitstat, detail::c::shmnm_setwaitstat> waitstat{};
/** The bw flag: shmnm_getbwflag(), shmnm_setbwflag(). */
inline constexpr ClusterWord<detail::c::shmnm_getbwflag, detail::c::shmnm_setbwflag> bwflag{};
/** The bw flag of the disk: shmnm_getbwflagdisk(), shmnm_setbwflagdisk(). */
inline constexpr ClusterWord<detail::c::shmnm_getbwflagdisk, detail::c::shmnm_setbwflagdisk> bwflagdisk{};
/** The cluster state: shmnm_getclstat(), shmnm_setclstat(). */
inline constexpr ClusterWord<detail::c::shmnm_getclstat, detail::c::shmnm_setclstat> clstat{};
/** The state of the fst resource: shmnm_getfstrscstat(), shmnm_setfstrscstat(). */
inline constexpr ClusterWord<detail::c::shmnm_getfstrscstat, detail::c::shmnm_setfstrscstat> fstrscstat{};

/** A server's state: shmnm_getnodestat(), shmnm_setnodestat(). */
inline constexpr ServerWord<detail::c::shmnm_getnodestat, detail::c::shmnm_setnodestat> nodestat{};
/** A server's network-wide state: shmnm_getnodestat_nw(), shmnm_setnodestat_nw(). */
inline constexpr ServerWord<detail::c::shmnm_getnodestat_nw, detail::c::shmnm_setnodestat_nw> nodestat_nw{};
/** A server's down-notification state: shmnm_getdownnotifystat(), shmnm_setdownnotifystat(). */
inline constexpr ServerWord<detail::c::shmnm_getdownnotifystat, detail::c::shmnm_setdownnotifystat> downnotifystat{};
/** A server's isolation flag: shmnm_getisolateflag(), shmnm_setisolateflag(). */
inline constexpr ServerWord<detail::c::shmnm_getisolateflag, detail::c::shmnm_setisolateflag> isolateflag{};
/** A server's ping state: shmnm_getpingstat(), shmnm_setpingstat(). */
inline constexpr ServerWord<detail::c::shmnm_getpingstat, detail::c::shmnm_setpingstat> pingstat{};
/** A server's hold state: shmnm_getholdstat(), shmnm_setholdstat(). */
inline constexpr ServerWord<detail::c::shmnm_getholdstat, detail::c::shmnm_setholdstat> holdstat{};

/** An hb resource's own state: shmnm_gethbrscstat(), shmnm_sethbrscstat(). */
inline constexpr ResourceWord<detail::Hb, detail::c::shmnm_gethbrscstat, detail::c::shmnm_sethbrscstat> hbrscstat{};
/** An np resource's own state: shmnm_getnprscstat(), shmnm_setnprscstat(). */
inline constexpr ResourceWord<detail::Np, detail::c::shmnm_getnprscstat, detail::c::shmnm_setnprscstat> nprscstat{};

/** An hb resource's state on a server: shmnm_gethbrscsvstat(), shmnm_sethbrscsvstat(), shmnm_enumhbrscsvstat(),
 * shmnm_enumsvhbrscstat(). */
inline constexpr PairWord<detail::Hb, detail::c::shmnm_gethbrscsvstat, detail::c::shmnm_sethbrscsvstat,
                          detail::c::shmnm_enumhbrscsvstat, detail::c::shmnm_enumsvhbrscstat>
    hbrscsvstat{};
/** An np resource's state on a server: shmnm_getnprscsvstat(), shmnm_setnprscsvstat(), shmnm_enumnprscsvstat(),
 * shmnm_enumsvnprscstat(). */
inline constexpr PairWord<detail::Np, detail::c::shmnm_getnprscsvstat, detail::c::shmnm_setnprscsvstat,
                          detail::c::shmnm_enumnprscsvstat, detail::c::shmnm_enumsvnprscstat>
    nprscsvstat{};
/** An hb resource's network-wide state on a server: shmnm_getrscsvstat_nw(), shmnm_setrscsvstat_nw(),
 * shmnm_enumrscsvstat_nw(), shmnm_enumsvrscstat_nw(). */
inline constexpr PairWord<detail::Hb, detail::c::shmnm_getrscsvstat_nw, detail::c::shmnm_setrscsvstat_nw,
                          detail::c::shmnm_enumrscsvstat_nw, detail::c::shmnm_enumsvrscstat_nw>
    rscsvstat_nw{};

/** @} */

/**
 * @defgroup shmnm_cpp_cluster Values of the whole cluster
 * @{
 */

/** The maximum values of the header, each at least 1. */
struct Maxima {
    std::int32_t servers = 0; /**< servers, and the length of every row */
    std::int32_t hb = 0;      /**< hb resources */
    std::int32_t np = 0;      /**< np resources */
};

/** The hb info pair, each value at least 1. */
struct HbInfo {
    std::int32_t a = 0; /**< the first value */
    std::int32_t b = 0; /**< the second value */
};

/** What is kept under a name and a kind: both values are opaque. */
struct FstPid {
    std::uint32_t pid = 0;     /**< the process id */
    std::uint64_t piddata = 0; /**< the value beside it */
};

/** The three kinds of process ids that a name may have. */
enum class FstKind : std::int32_t { zero, one, two };

/** The bytes of a description. Zeros follow a shorter text that was set in a new record. */
using Description = std::array<std::uint8_t, 256>;

namespace detail {

template <class How>
Maxima maxima(How how) {
    std::uint32_t servers = 0, hb = 0, np = 0;
    if (!call<c::shmnm_getmaxvalue_ex>(how, &servers, &hb, &np)) return {};
    return {static_cast<std::int32_t>(servers), static_cast<std::int32_t>(hb), static_cast<std::int32_t>(np)};
}

template <class How>
HbInfo hb_info(How how) {
    std::uint32_t a = 0, b = 0;
    if (!call<c::shmnm_gethbinfo_ex>(how, &a, &b)) return {};
    return {static_cast<std::int32_t>(a), static_cast<std::int32_t>(b)};
}

template <class Function, class How, class... Arguments>
Description description(How how, Arguments... arguments) {
    Description bytes{};
    constexpr std::int32_t size = std::tuple_size_v<Description>;
    call<Function>(how, arguments..., static_cast<void*>(bytes.data()), &size);
    return bytes;
}

template <class Function, class How, class... Arguments>
void set_description(How how, const ConstBytes& bytes, Arguments... arguments) {
    call<Function>(how, arguments..., static_cast<const void*>(bytes.data()), limited<std::int32_t>(bytes.size()));
}

template <class How>
bool any_alive(How how, const char* except) {
    return number<c::shmnm_chkalivesv, std::uint32_t>(how, except) != 0;
}

template <class How>
std::vector<std::uint8_t> dump(How how) {
    std::int32_t size = 0;
    std::vector<std::uint8_t> bytes;
    if (!call<c::shmnm_dump>(how, nullptr, &size)) return bytes;
    bytes.resize(static_cast<std::size_t>(size));
    if (!call<c::shmnm_dump>(how, bytes.data(), &size)) bytes.clear();
    return bytes;
}

template <class How>
void dump_into(How how, const Bytes& bytes) {
    // C takes null for a question, so an empty range has another address.
    std::uint8_t none = 0;
    auto size = limited<std::int32_t>(bytes.size());
    call<c::shmnm_dump>(how, bytes.size() > 0 ? bytes.data() : &none, &size);
}

template <class How>
FstPid fst_pid(How how, const Name& name, FstKind kind) {
    FstPid found;
    if (!name.valid()) {
        how.template take<c::shmnm_getfstrscpid>(SHMNM_ERR_PARAM);
        return found;
    }
    call<c::shmnm_getfstrscpid>(how, name.c_str(), static_cast<std::int32_t>(kind), &found.pid, &found.piddata);
    return found;
}

template <class How>
void set_fst_pid(How how, const Name& name, FstKind kind, FstPid value) {
    if (!name.valid()) {
        how.template take<c::shmnm_setfstrscpid>(SHMNM_ERR_PARAM);
        return;
    }
    call<c::shmnm_setfstrscpid>(how, name.c_str(), static_cast<std::int32_t>(kind), value.pid, value.piddata);
}

}  // namespace detail

/** Gets a word of the cluster: its Get function. */
template <class Get, class Set>
[[nodiscard]] State get(ClusterWord<Get, Set>, std::error_code& error) noexcept {
    return {detail::number<Get, std::uint32_t>(detail::Into{error})};
}
/** Sets a word of the cluster: its Set function. */
template <class Get, class Set>
void set(ClusterWord<Get, Set>, State state, std::error_code& error) noexcept {
    detail::call<Set>(detail::Into{error}, state.value);
}
/** Gets the maximum values: shmnm_getmaxvalue_ex(). */
[[nodiscard]] inline Maxima maxima(std::error_code& error) noexcept {
    return detail::maxima(detail::Into{error});
}
/** Sets the maximum values, which changes how the region is read: shmnm_setmaxvalue_ex(). */
inline void set_maxima(Maxima value, std::error_code& error) noexcept {
    detail::call<detail::c::shmnm_setmaxvalue_ex>(detail::Into{error}, value.servers, value.hb, value.np);
}
/** Gets the hb info pair: shmnm_gethbinfo_ex(). */
[[nodiscard]] inline HbInfo hb_info(std::error_code& error) noexcept {
    return detail::hb_info(detail::Into{error});
}
/** Sets the hb info pair: shmnm_sethbinfo_ex(). */
inline void set_hb_info(HbInfo value, std::error_code& error) noexcept {
    detail::call<detail::c::shmnm_sethbinfo_ex>(detail::Into{error}, value.a, value.b);
}
/** Tests whether any server is alive: shmnm_chkalivesv(). */
[[nodiscard]] inline bool any_alive(std::error_code& error) noexcept {
    return detail::any_alive(detail::Into{error}, nullptr);
}
/** Tests whether a network partition is simulated: shmnm_getnpsimuflag(). */
[[nodiscard]] inline bool partition_simulated(std::error_code& error) noexcept {
    return detail::number<detail::c::shmnm_getnpsimuflag, std::uint32_t>(detail::Into{error}) != 0;
}
/**
 * Tests whether a network partition is simulated, and if so for which servers: shmnm_getnpsimu().
 *
 * @param[out] failed  a word per server, indexed by its priority: 1 if it is simulated as failed; left as it is while
 *                     nothing is simulated. At least as many words as there are servers
 * @param[out] error   receives the result
 */
inline bool partition_simulated(const Words& failed, std::error_code& error) noexcept {
    std::uint32_t on = 0;
    detail::call<detail::c::shmnm_getnpsimu>(detail::Into{error}, &on, failed.data(),
                                             detail::limited<std::int32_t>(failed.size()));
    return on != 0;
}
/**
 * Simulates a network partition: shmnm_setnpsimu().
 *
 * @param[in]  failed  a word per server, indexed by its priority: 1 if it is to look failed
 * @param[out] error   receives the result
 */
inline void simulate_partition(const ConstWords& failed, std::error_code& error) noexcept {
    detail::call<detail::c::shmnm_setnpsimu>(detail::Into{error}, std::uint32_t{1}, failed.data(),
                                             detail::limited<std::int32_t>(failed.size()));
}
/** Ends the simulation of a network partition: shmnm_setnpsimu(). */
inline void end_partition(std::error_code& error) noexcept {
    detail::call<detail::c::shmnm_setnpsimu>(detail::Into{error}, std::uint32_t{0}, nullptr, 0);
}
/** Gets the description of the fst resource: shmnm_getfstdescript(). */
[[nodiscard]] inline Description fst_description(std::error_code& error) noexcept {
    return detail::description<detail::c::shmnm_getfstdescript>(detail::Into{error});
}
/** Sets the description of the fst resource, at most 256 bytes: shmnm_setfstdescript(). */
inline void set_fst_description(const ConstBytes& bytes, std::error_code& error) noexcept {
    detail::set_description<detail::c::shmnm_setfstdescript>(detail::Into{error}, bytes);
}
/** Gets the process id of one kind under a name, zeros if the name has no record: shmnm_getfstrscpid(). */
[[nodiscard]] inline FstPid fst_pid(const Name& name, FstKind kind, std::error_code& error) noexcept {
    return detail::fst_pid(detail::Into{error}, name, kind);
}
/** Sets the process id of one kind under a name: shmnm_setfstrscpid(). */
inline void set_fst_pid(const Name& name, FstKind kind, FstPid value, std::error_code& error) noexcept {
    detail::set_fst_pid(detail::Into{error}, name, kind, value);
}
/** Gets the size of the region in bytes: shmnm_dump(). It stays the same while the region is mapped. */
[[nodiscard]] inline std::size_t dump_size(std::error_code& error) noexcept {
    return static_cast<std::size_t>(detail::number<detail::c::shmnm_dump, std::int32_t>(detail::Into{error}, nullptr));
}
/** Copies the bytes of the region: shmnm_dump(), twice. Hold a lock for a consistent copy. */
[[nodiscard]] inline std::vector<std::uint8_t> dump(std::error_code& error) {
    return detail::dump(detail::Into{error});
}
/** Copies the bytes of the region to the begin of a range: shmnm_dump(). Hold a lock for a consistent copy. */
inline void dump(const Bytes& bytes, std::error_code& error) noexcept {
    detail::dump_into(detail::Into{error}, bytes);
}

#ifdef __cpp_exceptions
/** @name The same, throwing Error
 * @{ */
/** As the form with an error code. */
template <class Get, class Set>
[[nodiscard]] State get(ClusterWord<Get, Set>) {
    return {detail::number<Get, std::uint32_t>(detail::Throw{})};
}
template <class Get, class Set>
void set(ClusterWord<Get, Set>, State state) {
    detail::call<Set>(detail::Throw{}, state.value);
}
[[nodiscard]] inline Maxima maxima() {
    return detail::maxima(detail::Throw{});
}
inline void set_maxima(Maxima value) {
    detail::call<detail::c::shmnm_setmaxvalue_ex>(detail::Throw{}, value.servers, value.hb, value.np);
}
[[nodiscard]] inline HbInfo hb_info() {
    return detail::hb_info(detail::Throw{});
}
inline void set_hb_info(HbInfo value) {
    detail::call<detail::c::shmnm_sethbinfo_ex>(detail::Throw{}, value.a, value.b);
}
[[nodiscard]] inline bool any_alive() {
    return detail::any_alive(detail::Throw{}, nullptr);
}
[[nodiscard]] inline bool partition_simulated() {
    return detail::number<detail::c::shmnm_getnpsimuflag, std::uint32_t>(detail::Throw{}) != 0;
}
inline bool partition_simulated(const Words& failed) {
    std::uint32_t on = 0;
    detail::call<detail::c::shmnm_getnpsimu>(detail::Throw{}, &on, failed.data(),
                                             detail::limited<std::int32_t>(failed.size()));
    return on != 0;
}
inline void simulate_partition(const ConstWords& failed) {
    detail::call<detail::c::shmnm_setnpsimu>(detail::Throw{}, std::uint32_t{1}, failed.data(),
                                             detail::limited<std::int32_t>(failed.size()));
}
inline void end_partition() {
    detail::call<detail::c::shmnm_setnpsimu>(detail::Throw{}, std::uint32_t{0}, nullptr, 0);
}
[[nodiscard]] inline Description fst_description() {
    return detail::description<detail::c::shmnm_getfstdescript>(detail::Throw{});
}
inline void set_fst_description(const ConstBytes& bytes) {
    detail::set_description<detail::c::shmnm_setfstdescript>(detail::Throw{}, bytes);
}
[[nodiscard]] inline FstPid fst_pid(const Name& name, FstKind kind) {
    return detail::fst_pid(detail::Throw{}, name, kind);
}
inline void set_fst_pid(const Name& name, FstKind kind, FstPid value) {
    detail::set_fst_pid(detail::Throw{}, name, kind, value);
}
[[nodiscard]] inline std::size_t dump_size() {
    return static_cast<std::size_t>(detail::number<detail::c::shmnm_dump, std::int32_t>(detail::Throw{}, nullptr));
}
[[nodiscard]] inline std::vector<std::uint8_t> dump() {
    return detail::dump(detail::Throw{});
}
inline void dump(const Bytes& bytes) {
    detail::dump_into(detail::Throw{}, bytes);
}
/** @} */
#endif

/** @} */

/**
 * @defgroup shmnm_cpp_servers Servers
 * @{
 */

/**
 * A server, by its name.
 *
 * The object is only the name: it neither adds a server nor notices that one is removed. A name that was passed as a
 * `const char*` or as a named std::string must outlive it (see Name).
 */
class Server {
  public:
    /** The server of that name. */
    explicit Server(const Name& name) noexcept : name_(name) {}

    /** The name. */
    [[nodiscard]] const Name& name() const noexcept { return name_; }

    /** The first server with a priority: shmnm_getnodename(). Every operation of what is returned on failure fails
     * with errc::param. */
    [[nodiscard]] static Server with_priority(Priority priority, std::error_code& error) noexcept {
        return found(detail::Into{error}, priority);
    }
    /** Lists the names of all servers, in order of position: shmnm_enumnode(), to measure and to fill. */
    [[nodiscard]] static std::vector<std::string> names(Held lock, std::error_code& error) {
        return detail::texts<detail::c::shmnm_enumnode>(lock, detail::Into{error});
    }
    /** As names(Held, std::error_code&), without a lock. */
    [[nodiscard]] static std::vector<std::string> names(std::error_code& error) { return names(Held(), error); }

    /** Appends the server to the table: shmnm_addnode(). Hold a WriteLock. */
    void add(Priority priority, std::error_code& error) const noexcept {
        detail::call<detail::c::shmnm_addnode>(detail::Into{error}, name_.c_str(), priority.value);
    }
    /** Removes the server: shmnm_rmnode(). Hold a WriteLock. */
    void remove(std::error_code& error) const noexcept {
        detail::call<detail::c::shmnm_rmnode>(detail::Into{error}, name_.c_str());
    }
    /** Changes the priority: shmnm_modifynode(). Hold a WriteLock. */
    void set_priority(Priority priority, std::error_code& error) const noexcept {
        detail::call<detail::c::shmnm_modifynode>(detail::Into{error}, name_.c_str(), priority.value);
    }
    /** Gets the priority: shmnm_getnodepri(). */
    [[nodiscard]] Priority priority(std::error_code& error) const noexcept {
        return {detail::number<detail::c::shmnm_getnodepri, std::int32_t>(detail::Into{error}, name_.c_str())};
    }

    /** Gets a word: its Get function. */
    template <class Get, class Set>
    [[nodiscard]] State get(ServerWord<Get, Set>, std::error_code& error) const noexcept {
        return {detail::number<Get, std::uint32_t>(detail::Into{error}, name_.c_str())};
    }
    /** Sets a word: its Set function. */
    template <class Get, class Set>
    void set(ServerWord<Get, Set>, State state, std::error_code& error) const noexcept {
        detail::call<Set>(detail::Into{error}, name_.c_str(), state.value);
    }
    /** Gets the state combined with the isolation flag and the wait state, or nothing where these combine to none:
     * shmnm_getnodecombstat(). */
    [[nodiscard]] std::optional<State> combined(std::error_code& error) const noexcept {
        return combined_as(detail::Into{error});
    }
    /** Tests whether any other server is alive: shmnm_chkalivesv(). */
    [[nodiscard]] bool any_other_alive(std::error_code& error) const noexcept {
        return any_other_alive_as(detail::Into{error});
    }

    /** Lists a word of all resources on this server, in the order of the resources: its Column function, to measure, to
     * fill and, without a lock, to measure again. */
    template <class Kind, class Get, class Set, class Row, class Column>
    [[nodiscard]] std::vector<State> column(PairWord<Kind, Get, Set, Row, Column>, Held lock,
                                            std::error_code& error) const {
        return detail::word_list<Column, true>(lock, detail::Into{error}, name_.c_str());
    }
    /** As column(), without a lock. */
    template <class Kind, class Get, class Set, class Row, class Column>
    [[nodiscard]] std::vector<State> column(PairWord<Kind, Get, Set, Row, Column> word, std::error_code& error) const {
        return column(word, Held(), error);
    }
    /** As column(), to the begin of a range, whose other words stay as they are. @return the number of words */
    template <class Kind, class Get, class Set, class Row, class Column>
    std::size_t copy_column(PairWord<Kind, Get, Set, Row, Column>, const Words& words, Held lock,
                            std::error_code& error) const noexcept {
        return copied<Column>(detail::Into{error}, words, lock);
    }
    /** As copy_column(), without a lock. @return the number of words */
    template <class Kind, class Get, class Set, class Row, class Column>
    std::size_t copy_column(PairWord<Kind, Get, Set, Row, Column> word, const Words& words,
                            std::error_code& error) const noexcept {
        return copy_column(word, words, Held(), error);
    }

#ifdef __cpp_exceptions
    /** @name The same, throwing Error
     * @{ */
    /** As the form with an error code. */
    [[nodiscard]] static Server with_priority(Priority priority) {
        return found(detail::Throw{}, priority);
    }
    [[nodiscard]] static std::vector<std::string> names(Held lock = {}) {
        return detail::texts<detail::c::shmnm_enumnode>(lock, detail::Throw{});
    }
    void add(Priority priority) const {
        detail::call<detail::c::shmnm_addnode>(detail::Throw{}, name_.c_str(), priority.value);
    }
    void remove() const {
        detail::call<detail::c::shmnm_rmnode>(detail::Throw{}, name_.c_str());
    }
    void set_priority(Priority priority) const {
        detail::call<detail::c::shmnm_modifynode>(detail::Throw{}, name_.c_str(), priority.value);
    }
    [[nodiscard]] Priority priority() const {
        return {detail::number<detail::c::shmnm_getnodepri, std::int32_t>(detail::Throw{}, name_.c_str())};
    }
    template <class Get, class Set>
    [[nodiscard]] State get(ServerWord<Get, Set>) const {
        return {detail::number<Get, std::uint32_t>(detail::Throw{}, name_.c_str())};
    }
    template <class Get, class Set>
    void set(ServerWord<Get, Set>, State state) const {
        detail::call<Set>(detail::Throw{}, name_.c_str(), state.value);
    }
    [[nodiscard]] std::optional<State> combined() const {
        return combined_as(detail::Throw{});
    }
    [[nodiscard]] bool any_other_alive() const {
        return any_other_alive_as(detail::Throw{});
    }
    template <class Kind, class Get, class Set, class Row, class Column>
    [[nodiscard]] std::vector<State> column(PairWord<Kind, Get, Set, Row, Column>, Held lock = {}) const {
        return detail::word_list<Column, true>(lock, detail::Throw{}, name_.c_str());
    }
    template <class Kind, class Get, class Set, class Row, class Column>
    std::size_t copy_column(PairWord<Kind, Get, Set, Row, Column>, const Words& words, Held lock = {}) const {
        return copied<Column>(detail::Throw{}, words, lock);
    }
    /** @} */
#endif

  private:
    template <class How>
    static Server found(How how, Priority priority) {
        char text[Name::longest + 1];
        text[0] = '\0';
        if (!detail::call<detail::c::shmnm_getnodename>(how, text, priority.value)) return Server(Name(no_text()));
        return Server(std::string_view(text));
    }
    static const char* no_text() noexcept {
        return nullptr;
    }
    template <class How>
    std::optional<State> combined_as(How how) const {
        // The function leaves its output alone where the words combine to none. It never writes 0.
        const State state{detail::number<detail::c::shmnm_getnodecombstat, std::uint32_t>(how, name_.c_str())};
        return state.value != 0 ? std::optional(state) : std::nullopt;
    }
    template <class How>
    bool any_other_alive_as(How how) const {
        // For the C function null means no server.
        if (!name_.valid()) return how.template take<detail::c::shmnm_chkalivesv>(SHMNM_ERR_PARAM);
        return detail::any_alive(how, name_.c_str());
    }
    template <class Column, class How>
    std::size_t copied(How how, const Words& words, Held lock) const {
        return detail::words<Column, true>(
            lock, how, [&](std::size_t) { return words; }, name_.c_str());
    }

    Name name_;
};

/** @} */

/**
 * @defgroup shmnm_cpp_resources Resources
 * @{
 */

/** Asks for a resource of any type. */
struct any_type_t {
    explicit any_type_t() = default;
};
/** Asks for a resource of any type: `shmnm::HbResource lan1(shmnm::any_type, "lan1");`. */
inline constexpr any_type_t any_type{};

/**
 * An hb or np resource, by its type and name: use it as HbResource or NpResource.
 *
 * The object is only the two names: it neither adds a resource nor notices that one is removed. A text that was passed
 * as a `const char*` or as a named std::string must outlive it (see Name).
 */
template <class Kind>
class Resource {
  public:
    /** The resource of that type and name. */
    Resource(const Name& type, const Name& name) noexcept
        // C takes a missing type for any type. Without a name every call fails, whatever its type.
        : type_(type), name_(type.valid() ? name : Name(no_text())) {}
    /** The first resource of that name, whatever its type. Only its states can be set, got and listed; everything else
     * fails with errc::param. */
    Resource(any_type_t, const Name& name) noexcept : type_(no_text()), name_(name) {}

    /** The type; invalid if any type is meant. */
    [[nodiscard]] const Name& type() const noexcept { return type_; }
    /** The name. */
    [[nodiscard]] const Name& name() const noexcept { return name_; }

    /** The first resource with a name, with its type: shmnm_gethbrscinfo() or shmnm_getnprscinfo(). Every operation of
     * what is returned on failure fails with errc::param. */
    [[nodiscard]] static Resource named(const Name& name, std::error_code& error) noexcept {
        return found(detail::Into{error}, name);
    }
    /** Lists the type of every resource, in order of position, so that a type of several resources is listed several
     * times: shmnm_enumhbtype() or shmnm_enumnptype(), to measure and to fill. */
    [[nodiscard]] static std::vector<std::string> types(Held lock, std::error_code& error) {
        return detail::texts<typename Kind::ListTypes>(lock, detail::Into{error});
    }
    /** As types(Held, std::error_code&), without a lock. */
    [[nodiscard]] static std::vector<std::string> types(std::error_code& error) { return types(Held(), error); }
    /** Lists the names of all resources, in order of position: shmnm_enumhbrsc() or shmnm_enumnprsc(), to measure and
     * to fill. */
    [[nodiscard]] static std::vector<std::string> names(Held lock, std::error_code& error) {
        return detail::texts<typename Kind::ListNames>(lock, detail::Into{error}, no_text());
    }
    /** As names(Held, std::error_code&), without a lock. */
    [[nodiscard]] static std::vector<std::string> names(std::error_code& error) { return names(Held(), error); }
    /** As names(), the resources of one type. */
    [[nodiscard]] static std::vector<std::string> names_of_type(const Name& type, Held lock, std::error_code& error) {
        return listed(detail::Into{error}, type, lock);
    }
    /** As names_of_type(), without a lock. */
    [[nodiscard]] static std::vector<std::string> names_of_type(const Name& type, std::error_code& error) {
        return names_of_type(type, Held(), error);
    }
    /** Sets all states of every resource of a type: shmnm_settypehbstat() or shmnm_settypenpstat(). */
    static void set_all_of_type(const Name& type, State state, std::error_code& error) noexcept {
        detail::call<typename Kind::SetAll>(detail::Into{error}, type.c_str(), state.value);
    }
    /** Opens the column of a new server in every row, as Server::add() does itself: shmnm_addhbrscsvstat() or
     * shmnm_addnprscsvstat(). Hold a WriteLock. */
    static void open_column(std::int32_t position, std::error_code& error) noexcept {
        detail::call<typename Kind::OpenColumn>(detail::Into{error}, position);
    }
    /** Closes the column of a removed server in every row, as Server::remove() does itself: shmnm_rmhbrscsvstat() or
     * shmnm_rmnprscsvstat(). Hold a WriteLock. */
    static void close_column(std::int32_t position, std::error_code& error) noexcept {
        detail::call<typename Kind::CloseColumn>(detail::Into{error}, position);
    }

    /** Appends the resource to the table: shmnm_addhbrsc() or shmnm_addnprsc(). Hold a WriteLock. */
    void add(std::uint32_t priority, std::error_code& error) const noexcept {
        detail::call<typename Kind::Add>(detail::Into{error}, type_.c_str(), name_.c_str(), priority);
    }
    /** Removes the resource: shmnm_rmhbrsc() or shmnm_rmnprsc(). Hold a WriteLock. */
    void remove(std::error_code& error) const noexcept {
        detail::call<typename Kind::Remove>(detail::Into{error}, type_.c_str(), name_.c_str());
    }
    /** Changes the priority: shmnm_modifyhbrsc() or shmnm_modifynprsc(). */
    void set_priority(std::uint32_t priority, std::error_code& error) const noexcept {
        detail::call<typename Kind::SetPriority>(detail::Into{error}, type_.c_str(), name_.c_str(), priority);
    }
    /** Gets the priority: shmnm_gethbrscpri() or shmnm_getnprscpri(). */
    [[nodiscard]] std::uint32_t priority(std::error_code& error) const noexcept {
        return detail::number<typename Kind::GetPriority, std::uint32_t>(detail::Into{error}, type_.c_str(),
                                                                         name_.c_str());
    }

    /** Gets the resource's own state: its Get function. */
    template <class Get, class Set>
    [[nodiscard]] State get(ResourceWord<Kind, Get, Set>, std::error_code& error) const noexcept {
        return {detail::number<Get, std::uint32_t>(detail::Into{error}, type_.c_str(), name_.c_str())};
    }
    /** Sets the resource's own state: its Set function. */
    template <class Get, class Set>
    void set(ResourceWord<Kind, Get, Set>, State state, std::error_code& error) const noexcept {
        detail::call<Set>(detail::Into{error}, type_.c_str(), name_.c_str(), state.value);
    }
    /** Gets a word on the first server with a priority: its Get function. */
    template <class Get, class Set, class Row, class Column>
    [[nodiscard]] State get(PairWord<Kind, Get, Set, Row, Column>, Priority server,
                            std::error_code& error) const noexcept {
        return {detail::number<Get, std::uint32_t>(detail::Into{error}, type_.c_str(), name_.c_str(), server.value)};
    }
    /** Sets a word on the first server with a priority: its Set function. */
    template <class Get, class Set, class Row, class Column>
    void set(PairWord<Kind, Get, Set, Row, Column>, Priority server, State state,
             std::error_code& error) const noexcept {
        detail::call<Set>(detail::Into{error}, type_.c_str(), name_.c_str(), server.value, state.value);
    }

    /** Lists a word on all servers, in the order of the servers: its Row function, to measure and to fill. */
    template <class Get, class Set, class Row, class Column>
    [[nodiscard]] std::vector<State> row(PairWord<Kind, Get, Set, Row, Column>, Held lock,
                                         std::error_code& error) const {
        return detail::word_list<Row, false>(lock, detail::Into{error}, type_.c_str(), name_.c_str());
    }
    /** As row(), without a lock. */
    template <class Get, class Set, class Row, class Column>
    [[nodiscard]] std::vector<State> row(PairWord<Kind, Get, Set, Row, Column> word, std::error_code& error) const {
        return row(word, Held(), error);
    }
    /** Copies a word on all servers to the begin of a range, whose other words stay as they are: its Row function,
     * once. @return the number of words */
    template <class Get, class Set, class Row, class Column>
    std::size_t copy_row(PairWord<Kind, Get, Set, Row, Column>, const Words& words,
                         std::error_code& error) const noexcept {
        return copied<Row>(detail::Into{error}, words);
    }

    /** Gets the description: shmnm_gethbdescript() or shmnm_getnpdescript(), which find only the first resource. */
    [[nodiscard]] Description description(std::error_code& error) const noexcept {
        return detail::description<typename Kind::GetDescription>(detail::Into{error}, type_.c_str(), name_.c_str());
    }
    /** Sets the description, at most 256 bytes: shmnm_sethbdescript() or shmnm_setnpdescript(), which find only the
     * first resource. */
    void set_description(const ConstBytes& bytes, std::error_code& error) const noexcept {
        detail::set_description<typename Kind::SetDescription>(detail::Into{error}, bytes, type_.c_str(),
                                                               name_.c_str());
    }

#ifdef __cpp_exceptions
    /** @name The same, throwing Error
     * @{ */
    /** As the form with an error code. */
    [[nodiscard]] static Resource named(const Name& name) {
        return found(detail::Throw{}, name);
    }
    [[nodiscard]] static std::vector<std::string> types(Held lock = {}) {
        return detail::texts<typename Kind::ListTypes>(lock, detail::Throw{});
    }
    [[nodiscard]] static std::vector<std::string> names(Held lock = {}) {
        return detail::texts<typename Kind::ListNames>(lock, detail::Throw{}, no_text());
    }
    [[nodiscard]] static std::vector<std::string> names_of_type(const Name& type, Held lock = {}) {
        return listed(detail::Throw{}, type, lock);
    }
    static void set_all_of_type(const Name& type, State state) {
        detail::call<typename Kind::SetAll>(detail::Throw{}, type.c_str(), state.value);
    }
    static void open_column(std::int32_t position) {
        detail::call<typename Kind::OpenColumn>(detail::Throw{}, position);
    }
    static void close_column(std::int32_t position) {
        detail::call<typename Kind::CloseColumn>(detail::Throw{}, position);
    }
    void add(std::uint32_t priority) const {
        detail::call<typename Kind::Add>(detail::Throw{}, type_.c_str(), name_.c_str(), priority);
    }
    void remove() const {
        detail::call<typename Kind::Remove>(detail::Throw{}, type_.c_str(), name_.c_str());
    }
    void set_priority(std::uint32_t priority) const {
        detail::call<typename Kind::SetPriority>(detail::Throw{}, type_.c_str(), name_.c_str(), priority);
    }
    [[nodiscard]] std::uint32_t priority() const {
        return detail::number<typename Kind::GetPriority, std::uint32_t>(detail::Throw{}, type_.c_str(), name_.c_str());
    }
    template <class Get, class Set>
    [[nodiscard]] State get(ResourceWord<Kind, Get, Set>) const {
        return {detail::number<Get, std::uint32_t>(detail::Throw{}, type_.c_str(), name_.c_str())};
    }
    template <class Get, class Set>
    void set(ResourceWord<Kind, Get, Set>, State state) const {
        detail::call<Set>(detail::Throw{}, type_.c_str(), name_.c_str(), state.value);
    }
    template <class Get, class Set, class Row, class Column>
    [[nodiscard]] State get(PairWord<Kind, Get, Set, Row, Column>, Priority server) const {
        return {detail::number<Get, std::uint32_t>(detail::Throw{}, type_.c_str(), name_.c_str(), server.value)};
    }
    template <class Get, class Set, class Row, class Column>
    void set(PairWord<Kind, Get, Set, Row, Column>, Priority server, State state) const {
        detail::call<Set>(detail::Throw{}, type_.c_str(), name_.c_str(), server.value, state.value);
    }
    template <class Get, class Set, class Row, class Column>
    [[nodiscard]] std::vector<State> row(PairWord<Kind, Get, Set, Row, Column>, Held lock = {}) const {
        return detail::word_list<Row, false>(lock, detail::Throw{}, type_.c_str(), name_.c_str());
    }
    template <class Get, class Set, class Row, class Column>
    std::size_t copy_row(PairWord<Kind, Get, Set, Row, Column>, const Words& words) const {
        return copied<Row>(detail::Throw{}, words);
    }
    [[nodiscard]] Description description() const {
        return detail::description<typename Kind::GetDescription>(detail::Throw{}, type_.c_str(), name_.c_str());
    }
    void set_description(const ConstBytes& bytes) const {
        detail::set_description<typename Kind::SetDescription>(detail::Throw{}, bytes, type_.c_str(), name_.c_str());
    }
    /** @} */
#endif

  private:
    static const char* no_text() noexcept {
        return nullptr;
    }
    template <class How>
    static Resource found(How how, const Name& name) {
        char type[32];
        type[0] = '\0';
        if (!detail::call<typename Kind::FindType>(how, type, name.c_str())) return {any_type, Name(no_text())};
        return {std::string_view(type), name};
    }
    template <class How>
    static std::vector<std::string> listed(How how, const Name& type, Held lock) {
        // For the C function null means every type.
        if (!type.valid()) {
            how.template take<typename Kind::ListNames>(SHMNM_ERR_PARAM);
            return {};
        }
        return detail::texts<typename Kind::ListNames>(lock, how, type.c_str());
    }
    template <class Row, class How>
    std::size_t copied(How how, const Words& words) const {
        detail::Place place(words);
        if (!detail::call<Row>(how, type_.c_str(), name_.c_str(), place.words, &place.size)) return 0;
        return place.size / sizeof(std::uint32_t);
    }

    Name type_, name_;
};

/** An hb (heartbeat) resource. */
using HbResource = Resource<detail::Hb>;
/** An np (network-partition) resource. */
using NpResource = Resource<detail::Np>;

/** @} */

}  // namespace shmnm

template <>
struct std::is_error_code_enum<shmnm::errc> : std::true_type {};

#endif
