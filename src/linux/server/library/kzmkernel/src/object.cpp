#include "object.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

#include "error.h"
#include "explanation.h"
#include "folder.h"
#include "kzmkernel.h"
#include "view.h"

namespace kzmkernel {
namespace {

constexpr uint64_t allocation_step = 1u << 20;
constexpr size_t longest_name = 200;

/// The process's objects, and mutexes that were closed while a thread of this process owned them or had used them last.
constinit Object* objects = nullptr;
constinit Object* closed_mutexes = nullptr;

uint32_t check_name(const char* name) {
    if (!name) return KZMKERNEL_ERROR_INVALID_PARAMETER;
    const size_t length = strnlen(name, longest_name + 1);
    const bool well_formed =
        length > 0 && length <= longest_name && name[0] != '.' && std::none_of(name, name + length, [](char c) {
            return c == '/' || static_cast<unsigned char>(c) < ' ' || c == '\x7F';
        });
    return well_formed ? 0 : KZMKERNEL_ERROR_INVALID_NAME;
}

bool unlink_from(Object*& list, const Object* object) {
    for (Object** at = &list; *at; at = &(*at)->next) {
        if (*at != object) continue;
        *at = object->next;
        return true;
    }
    return false;
}

Object* find_in(Object* list, Kind kind, const struct stat& file) {
    while (list && !(list->kind == kind && list->inode == file.st_ino && list->device == file.st_dev))
        list = list->next;
    return list;
}

MappedMutex* map_mutex(int file) {
    void* const address = mmap(nullptr, mutex_file_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (address == MAP_FAILED) return nullptr;
    auto* const mapped = new (std::nothrow) MappedMutex{static_cast<Mutex*>(address), 0};
    if (!mapped) {
        munmap(address, mutex_file_size);
        errno = ENOMEM;
    }
    return mapped;
}

void unmap(MappedMutex* mapped) {
    if (mapped) munmap(mapped->mutex, mutex_file_size);
    delete mapped;
}

bool must_stay_mapped(const MappedMutex& mapped) {
    return mapped.users.load(std::memory_order_acquire) != 0 || mapped.mutex->is_owned_by_this_process();
}

/// Charges all of the memory now. It is done in steps, because a signal makes one start again.
int allocate(int file, uint64_t size) {
    struct statvfs disk {};
    if (fstatvfs(file, &disk) != 0) return errno;
    if (disk.f_blocks != 0 && size / disk.f_frsize > disk.f_bavail) return ENOSPC;
    for (uint64_t done = 0; done < size;) {
        const uint64_t step = std::min(allocation_step, size - done);
        const int result = posix_fallocate(file, static_cast<off_t>(done), static_cast<off_t>(step));
        if (result == EINTR) continue;
        if (result != 0) return result;
        done += step;
    }
    return 0;
}

/// The same without SIGXFSZ, which the system sends to a thread that goes beyond the limit of file sizes (ulimit -f),
/// and which ends the process.
int allocate_without_signal(int file, uint64_t size) {
    sigset_t limit, before, pending;
    sigemptyset(&limit);
    sigaddset(&limit, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &limit, &before);
    sigpending(&pending);
    const int error = allocate(file, size);
    // One that was pending before is the program's.
    if (error == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        const timespec no_time{};
        sigtimedwait(&limit, nullptr, &no_time);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

/// An object in the making: an unnamed file, which goes with the process, and with this unless it is given its name.
/// Where that cannot be done later, since /proc is missing, it has a name of its own until then.
class Building {
  public:
    explicit Building(const Gate& gate) : gate_(gate) {}
    ~Building() {
        if (own_name_[0] != '\0') unlinkat(gate_.folder(), own_name_, 0);
    }
    Building(const Building&) = delete;
    Building& operator=(const Building&) = delete;

    uint32_t build(Kind kind, uint64_t size) {
        make_file();
        // A folder that has been removed takes no more files.
        if (!file_ && errno == ENOENT) return KZMKERNEL_ERROR_FILE_INVALID;
        if (!file_ || fchmod(file_.get(), 0600) != 0) return windows_error(errno);
        if (const int error = allocate_without_signal(file_.get(), size)) {
            return explained(windows_error(error), "cannot allocate %llu bytes: %s%s",
                             static_cast<unsigned long long>(size), std::strerror(error),
                             error == EFBIG ? ": raise the limit of file sizes (ulimit -f)" : "");
        }
        return kind == Kind::mutex ? prepare_mutex() : 0;
    }

    /// Gives it a name that is free. The gate must be held.
    uint32_t name(const char* file_name) {
        const int folder = gate_.folder();
        char unnamed[32];
        std::snprintf(unnamed, sizeof unnamed, "%s/%d", descriptors, file_.get());
        const bool is_named = own_name_[0] != '\0'
                                  ? renameat(folder, own_name_, folder, file_name) == 0
                                  : linkat(AT_FDCWD, unnamed, folder, file_name, AT_SYMLINK_FOLLOW) == 0;
        if (!is_named) return windows_error(errno);
        own_name_[0] = '\0';
        return 0;
    }

  private:
    /// Links to files that are open, so that naming an unnamed one needs no more rights than its user has.
    static constexpr const char* descriptors = "/proc/self/fd";

    void make_file() {
        constexpr int most_tries = 100;
        if (access(descriptors, X_OK) == 0) file_ = open_at(gate_.folder(), ".", O_RDWR | O_TMPFILE, 0600);
        // No object's name begins with a dot.
        for (int i = 0; i < most_tries && !file_; ++i) {
            std::snprintf(own_name_, sizeof own_name_, ".new.%d.%d", getpid(), i);
            file_ = open_at(gate_.folder(), own_name_, object_flags | O_CREAT | O_EXCL, 0600);
            if (!file_) own_name_[0] = '\0';
            if (!file_ && errno != EEXIST) return;
        }
    }

    uint32_t prepare_mutex() const {
        MappedMutex* const mapped = map_mutex(file_.get());
        if (!mapped) return windows_error(errno);
        const uint32_t error = mapped->mutex->prepare();
        unmap(mapped);
        return error;
    }

    const Gate& gate_;
    Descriptor file_;
    char own_name_[32]{};
};

/// Whether a file that nobody guards is in use all the same: a program that closes all of its descriptors loses its
/// guards and goes on using the memory.
bool is_in_use(Kind kind, int file, const struct stat& status) {
    if (find_in(objects, kind, status)) return true;
    // What this process alone has kept of an object would look like another process's use of it.
    if (find_in(closed_mutexes, kind, status) || is_viewed_here(status.st_dev, status.st_ino)) return false;
    if (status.st_size == 0 || static_cast<uint64_t>(status.st_size) % page != 0) return false;
    return is_used_by_others(file, Patience{10 * ns_per_ms}) && !is_marked_as_viewed(file);
}

/// Opens the living file of a name; 2: the name is free, and if a dead object's file lies under it, that is open.
uint32_t open_file(const Gate& gate, Kind kind, const char* file_name, Descriptor& file, struct stat& status) {
    file = open_at(gate.folder(), file_name, object_flags);
    if (!file) {
        const int error = errno;
        if (error != ENOENT) {
            const uint32_t refused = windows_error(error);
            return refused == KZMKERNEL_ERROR_ACCESS_DENIED ? gate.refuse_file(file_name) : refused;
        }
        if (life_of(gate.folder(), file_name, nullptr) != Life::dead) return gate.explain_replaced(file_name);
        return KZMKERNEL_ERROR_FILE_NOT_FOUND;
    }
    if (fstat(file.get(), &status) != 0) return windows_error(errno);
    if (!is_proper_file(status)) return gate.refuse_file(file_name);
    switch (life_of(gate.folder(), file_name, &status)) {
        case Life::dead:
            return is_in_use(kind, file.get(), status) ? 0 : KZMKERNEL_ERROR_FILE_NOT_FOUND;
        case Life::replaced:
            return gate.explain_replaced(file_name);
        case Life::alive:
            break;
    }
    return 0;
}

bool other_kind_lives(const Gate& gate, const Object& object) {
    const Kind other = object.kind == Kind::mutex ? Kind::mapping : Kind::mutex;
    char file_name[sizeof object.file_name];
    std::memcpy(file_name, object.file_name, sizeof file_name);
    file_name[0] = static_cast<char>(other);
    if (life_of(gate.folder(), file_name, nullptr) != Life::dead) return true;
    Descriptor file;
    struct stat status {};
    return open_file(gate, other, file_name, file, status) == 0;
}

/// Makes this process's Object of a living file that it does not hold yet.
uint32_t adopt(Gate& gate, Descriptor file, const struct stat& status, Object& object) {
    object.device = status.st_dev;
    object.inode = status.st_ino;
    object.size = static_cast<uint64_t>(status.st_size);
    if (object.kind == Kind::mutex) {
        if (object.size != mutex_file_size) return KZMKERNEL_ERROR_ACCESS_DENIED;
        // A thread that still owns it has it linked at this address.
        Object* const closed = find_in(closed_mutexes, Kind::mutex, status);
        object.mapped = closed ? closed->mapped : map_mutex(file.get());
        if (!object.mapped) return windows_error(errno);
        uint32_t error = 0;
        if (!object.mapped->mutex->is_usable()) {
            error = KZMKERNEL_ERROR_ACCESS_DENIED;
        } else if (!hold_alive(gate.folder(), object.file_name, status)) {
            error = windows_error(errno);
        }
        if (error != 0 && !closed) unmap(object.mapped);
        if (error == 0 && closed) {
            unlink_from(closed_mutexes, closed);
            delete closed;
        }
        return error;
    }
    object.file = std::move(file);
    return hold_alive(gate.folder(), object.file_name, status) ? 0 : windows_error(errno);
}

/// The system has given a number away, so this object has it no more.
void forget_number(Object& object, int number) {
    for (KeptDescriptor* const kept : {&object.sibling, &object.folder, &object.file}) kept->forget(number);
}

/// The same with the numbers of an object, for all others.
void forget_numbers_of(const Object& object) {
    for (Object* other = objects; other; other = other->next) {
        if (other == &object) continue;
        for (const KeptDescriptor* const kept : {&object.sibling, &object.folder, &object.file}) {
            forget_number(*other, kept->get());
        }
    }
}

uint32_t keep(Gate& gate, Object* made, Object*& object) {
    gate.leave_guarded(made->sibling, made->folder);
    forget_numbers_of(*made);
    made->handles = 1;
    made->next = objects;
    objects = object = made;
    return 0;
}

/// Guards an object of this process anew if its program has closed what carried the guards, or if the sibling was
/// removed.
uint32_t guard_again(Gate& gate, Object& object, Descriptor file, const struct stat& status) {
    struct stat sibling {};
    if (fstat(gate.sibling(), &sibling) != 0) return windows_error(errno);
    for (const int number : {gate.sibling(), gate.folder(), file.get()}) forget_number(object, number);
    if (object.folder.is_there() && object.sibling.is(sibling) &&
        (object.kind == Kind::mutex || object.file.is_there())) {
        return 0;
    }
    if (!hold_alive(gate.folder(), object.file_name, status)) return windows_error(errno);
    gate.leave_guarded(object.sibling, object.folder);
    if (object.kind == Kind::mapping) object.file = std::move(file);
    forget_numbers_of(object);
    return 0;
}

/// Looks for the living object of made's name, with the gate held. 183: `object` is it; 2: the name is free.
/// Where an object is to be made, a dead one's file is removed.
uint32_t look(Gate& gate, Object* made, bool make, Object*& object, RemovedFiles& removed) {
    Descriptor file;
    struct stat status {};
    const uint32_t found = open_file(gate, made->kind, made->file_name, file, status);
    if (found == 0) {
        if (Object* const known = find_in(objects, made->kind, status)) {
            if (const uint32_t error = guard_again(gate, *known, std::move(file), status)) return error;
            ++known->handles;
            object = known;
            return KZMKERNEL_ERROR_ALREADY_EXISTS;
        }
        if (const uint32_t error = adopt(gate, std::move(file), status, *made)) return error;
        keep(gate, made, object);
        return KZMKERNEL_ERROR_ALREADY_EXISTS;
    }
    if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND) return found;
    if (other_kind_lives(gate, *made)) return KZMKERNEL_ERROR_INVALID_HANDLE;
    if (make && file) {
        if (unlinkat(gate.folder(), made->file_name, 0) != 0) return windows_error(errno);
        removed.add(std::move(file));
    }
    return found;
}

/// Makes an object of a name that was free. The gate is free, too, until the object has its memory.
uint32_t make_new(Gate& gate, uint64_t size, Object* made, Object*& object, RemovedFiles& removed) {
    Building building(gate);
    if (const uint32_t error = building.build(made->kind, size)) return error;
    if (const uint32_t error = gate.step_in()) return error;
    const uint32_t found = look(gate, made, true, object, removed);
    if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND) return found;
    if (const uint32_t error = building.name(made->file_name)) return error;
    // Opened by its name, which tools show then.
    struct stat status {};
    uint32_t error = 0;
    Descriptor file = open_at(gate.folder(), made->file_name, object_flags);
    if (!file || fstat(file.get(), &status) != 0) {
        error = windows_error(errno);
    } else {
        error = adopt(gate, std::move(file), status, *made);
    }
    if (error == 0) return keep(gate, made, object);
    unlinkat(gate.folder(), made->file_name, 0);
    return error;
}

uint32_t obtain(Kind kind, const char* name, uint64_t size, bool make, Object*& object) {
    if (const uint32_t error = check_name(name)) return error;
    forget_explanation();
    forget_closed_mutexes();
    Object* const made = new (std::nothrow) Object{};
    if (!made) return KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY;
    made->kind = kind;
    file_name_of(kind, name, made->file_name);

    const auto obtained = [&]() -> uint32_t {
        RemovedFiles removed;  // let go of after the gate
        Gate gate;
        if (const uint32_t error = gate.enter(make)) return error;
        uint32_t found = look(gate, made, make, object, removed);
        if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND || !make) return found;
        // Who comes first clears up: that is often enough, and costs nothing later.
        if (!objects) remove_leftovers(gate, removed);
        gate.step_out();
        removed.let_go();
        if (gate.wait_for_maker_of(made->file_name)) {
            if (const uint32_t error = gate.step_in()) return error;
            found = look(gate, made, make, object, removed);
            if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND) return found;
            gate.step_out();
            removed.let_go();
        }
        return make_new(gate, size, made, object, removed);
    }();
    if (object != made) delete made;
    return obtained;
}

/// Removes the file of an object that this process has given up, if no other process has it. Where the gate cannot be
/// had the file stays, as after a kill: the next creator knows that it is dead.
void remove_file_of(Object& object) {
    // Views of this process hide from it whether the process that it forked still uses the memory.
    if (object.was_forked && is_viewed_here(object.device, object.inode)) {
        object.folder.reset();
        return;
    }
    RemovedFiles removed;  // let go of after the gate
    // A descriptor of its own: a forked child may share ours, and with it the gate's lock.
    Gate gate;
    if (!(object.folder.is_there() ? gate.enter_again(object.folder.get()) : gate.enter(false) == 0)) return;
    object.folder.reset();
    Descriptor file = open_at(gate.folder(), object.file_name, object_flags);
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0 || status.st_ino != object.inode ||
        life_of(gate.folder(), object.file_name, nullptr) != Life::dead || is_in_use(object.kind, file.get(), status)) {
        return;
    }
    unlinkat(gate.folder(), object.file_name, 0);
    removed.add(std::move(file));
}

}  // namespace

void file_name_of(Kind kind, const char* name, char (&result)[file_name_size]) noexcept {
    std::snprintf(result, sizeof result, "%c.%s", static_cast<char>(kind), name);
}

uint32_t create_object(Kind kind, const char* name, uint64_t size, Object*& object) noexcept {
    if (size > static_cast<uint64_t>(INT64_MAX) - page) return KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY;
    object = nullptr;
    return obtain(kind, name, (size + page - 1) / page * page, true, object);
}

uint32_t open_object(Kind kind, const char* name, Object*& object) noexcept {
    object = nullptr;
    const uint32_t result = obtain(kind, name, 0, false, object);
    return result == KZMKERNEL_ERROR_ALREADY_EXISTS ? 0 : result;
}

void drop_object(Object* object) noexcept {
    if (--object->handles > 0) return;
    forget_closed_mutexes();
    unlink_from(objects, object);
    if (object->file.is_there() && !object->was_forked && is_viewed_here(object->device, object->inode)) {
        mark_as_viewed(object->file.get());
    }
    object->file.reset();
    object->sibling.reset();
    const bool is_mutex = object->kind == Kind::mutex;
    if (is_mutex && must_stay_mapped(*object->mapped)) {
        object->next = closed_mutexes;
        closed_mutexes = object;
    } else if (is_mutex) {
        unmap(std::exchange(object->mapped, nullptr));
    }
    remove_file_of(*object);
    if (!object->mapped) delete object;
}

void forget_closed_mutexes() noexcept {
    for (Object** at = &closed_mutexes; *at;) {
        Object* const object = *at;
        if (must_stay_mapped(*object->mapped)) {
            at = &object->next;
            continue;
        }
        *at = object->next;
        unmap(object->mapped);
        delete object;
    }
}

void note_fork() noexcept {
    for (Object* object = objects; object; object = object->next) object->was_forked = true;
}

void forget_users_of_mutexes() noexcept {
    for (const Object* list : {objects, closed_mutexes}) {
        for (; list; list = list->next) {
            if (list->mapped) list->mapped->users.store(0, std::memory_order_relaxed);
        }
    }
    forget_closed_mutexes();
}

}  // namespace kzmkernel
