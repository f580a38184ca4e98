#include "object.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "error.h"
#include "explanation.h"
#include "folder.h"
#include "guard.h"
#include "kzmkernel.h"
#include "new_file.h"
#include "view.h"

namespace kzmkernel {
namespace {

constexpr size_t longest_name = 200;

/// What a caller wants of a name: to open its object, or to open or create it. A new object is writable.
enum class Wish { read, write, create };

/// The process's objects, and the closed mutexes whose page a thread of this process still owns or used last.
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

void unlink_from(Object*& list, const Object* object) {
    Object** at = &list;
    while (*at != object) at = &(*at)->next;
    *at = object->next;
}

Object* find_in(Object* list, Kind kind, const struct stat& file) {
    while (list && !(list->kind == kind && list->inode == file.st_ino && list->device == file.st_dev))
        list = list->next;
    return list;
}

/// Whether a file whose guards are free is in use nevertheless: a program that closes all of its descriptors loses its
/// guards and goes on using the memory.
bool is_in_use(Kind kind, int file, const struct stat& status) {
    if (find_in(objects, kind, status)) return true;
    // What this process has kept of an object would look like another process's use of it.
    if (find_in(closed_mutexes, kind, status) || is_viewed_here(status.st_dev, status.st_ino)) return false;
    if (status.st_size == 0 || static_cast<uint64_t>(status.st_size) % page != 0) return false;
    return is_used_by_others(file, Patience{10 * ns_per_ms}) && !is_marked_as_viewed(file);
}

/// Opens the living file of a name. 2 if the name is free; `file` is then the dead object's file under it, if there is
/// one.
uint32_t open_file(const Gate& gate, Kind kind, const char* file_name, int flags, Descriptor& file,
                   struct stat& status) {
    file = open_at(gate.folder(), file_name, flags);
    if (!file) {
        const int error = errno;
        if (error != ENOENT) {
            const uint32_t refused = windows_error(error);
            return refused == KZMKERNEL_ERROR_ACCESS_DENIED ? gate.refuse_file(file_name, error) : refused;
        }
        if (life_of(gate.folder(), file_name, nullptr) != Life::dead) return gate.explain_replaced(file_name);
        return KZMKERNEL_ERROR_FILE_NOT_FOUND;
    }
    if (fstat(file.get(), &status) != 0) return windows_error(errno);
    if (!is_proper_file(status)) return gate.refuse_file(file_name, 0);
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
    return open_file(gate, other, file_name, read_flags, file, status) == 0;
}

/// Fills in the Object of a living file that this process does not hold yet.
uint32_t adopt(Gate& gate, Descriptor file, bool writable, const struct stat& status, Object& object) {
    object.device = status.st_dev;
    object.inode = status.st_ino;
    object.size = static_cast<uint64_t>(status.st_size);
    if (object.kind == Kind::mutex) {
        // The guards of a living file cover its size; only a file that lost its guards may have another one.
        if (object.size != mutex_file_size) return KZMKERNEL_ERROR_ACCESS_DENIED;
        // If a thread still owns it, its list of robust mutexes holds this address.
        Object* const closed = find_in(closed_mutexes, Kind::mutex, status);
        object.mapped = closed ? closed->mapped : map_mutex(file.get());
        if (!object.mapped) return windows_error(errno);
        uint32_t error = 0;
        if (!object.mapped->mutex->is_usable()) {
            error = KZMKERNEL_ERROR_ACCESS_DENIED;
        } else if (!hold_alive(gate.folder(), object.file_name, status)) {
            error = windows_error(errno);
        }
        // branch: the system refuses the guards of a mutex that this process owns and has closed
        if (error != 0 && !closed) unmap_mutex(object.mapped);
        if (error == 0 && closed) {
            unlink_from(closed_mutexes, closed);
            delete closed;
        }
        return error;
    }
    object.file(writable) = std::move(file);
    return hold_alive(gate.folder(), object.file_name, status) ? 0 : windows_error(errno);
}

std::array<KeptDescriptor*, 4> descriptors_of(Object& object) {
    return {&object.sibling, &object.folder, &object.read_file, &object.write_file};
}

/// Forgets a descriptor number that the system has given to another file.
void forget_number(Object& object, int number) {
    for (KeptDescriptor* const kept : descriptors_of(object)) kept->forget(number);
}

/// Forgets the descriptor numbers of an object in all other objects.
void forget_numbers_of(Object& object) {
    for (Object* other = objects; other; other = other->next) {
        if (other == &object) continue;
        for (const KeptDescriptor* const kept : descriptors_of(object)) forget_number(*other, kept->get());
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

/// Gives an object of this process the file for another kind of handle. Guards the object again if the program closed
/// the descriptors with the guards, or if the sibling was removed.
uint32_t add_to(Gate& gate, Object& object, Descriptor file, bool writable, const struct stat& status) {
    struct stat sibling {};
    if (fstat(gate.sibling(), &sibling) != 0) return windows_error(errno);
    for (const int number : {gate.sibling(), gate.folder(), file.get()}) forget_number(object, number);
    const bool is_guarded = object.folder.is_there() && object.sibling.is(sibling);
    const bool has_file = object.kind == Kind::mutex || object.file(writable).is_there();
    if (is_guarded && has_file) return 0;
    if (!is_guarded) {
        if (!hold_alive(gate.folder(), object.file_name, status)) return windows_error(errno);
        gate.leave_guarded(object.sibling, object.folder);
    }
    if (!has_file) object.file(writable) = std::move(file);
    forget_numbers_of(object);
    return 0;
}

/// Looks for the living object of made's name; the gate is held. 183: it is `object`; 2: the name is free. Removes a
/// dead object's file if an object is to be made.
uint32_t look(Gate& gate, Object* made, Wish wish, Object*& object, RemovedFiles& removed) {
    const bool writable = wish != Wish::read;
    Descriptor file;
    struct stat status {};
    const uint32_t found =
        open_file(gate, made->kind, made->file_name, writable ? object_flags : read_flags, file, status);
    if (found == 0) {
        if (Object* const known = find_in(objects, made->kind, status)) {
            if (const uint32_t error = add_to(gate, *known, std::move(file), writable, status)) return error;
            ++known->handles;
            object = known;
            return KZMKERNEL_ERROR_ALREADY_EXISTS;
        }
        if (const uint32_t error = adopt(gate, std::move(file), writable, status, *made)) return error;
        keep(gate, made, object);
        return KZMKERNEL_ERROR_ALREADY_EXISTS;
    }
    if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND) return found;
    if (other_kind_lives(gate, *made)) return KZMKERNEL_ERROR_INVALID_HANDLE;
    if (wish == Wish::create && file) {
        if (unlinkat(gate.folder(), made->file_name, 0) != 0) return windows_error(errno);
        removed.add(std::move(file));
    }
    return found;
}

/// Makes an object of a name that was free. The gate is open to other processes until the object has its memory.
uint32_t make_new(Gate& gate, uint64_t size, Object* made, Object*& object, RemovedFiles& removed) {
    NewFile made_file(gate);
    if (const uint32_t error = made_file.make(size)) return error;
    if (made->kind == Kind::mutex) {
        if (const uint32_t error = made_file.prepare_mutex()) return error;
    }
    if (const uint32_t error = gate.step_in()) return error;
    const uint32_t found = look(gate, made, Wish::create, object, removed);
    if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND) return found;
    if (const uint32_t error = made_file.name(made->file_name)) return error;
    // The file is opened by its name so that tools show the name.
    struct stat status {};
    uint32_t error = 0;
    Descriptor file = open_at(gate.folder(), made->file_name, object_flags);
    if (!file || fstat(file.get(), &status) != 0) {
        error = windows_error(errno);
    } else {
        error = adopt(gate, std::move(file), true, status, *made);
    }
    if (error == 0) return keep(gate, made, object);
    unlinkat(gate.folder(), made->file_name, 0);
    return error;
}

uint32_t obtain(Kind kind, const char* name, uint64_t size, Wish wish, Object*& object) {
    forget_explanation();
    if (const uint32_t error = check_name(name)) return error;
    forget_closed_mutexes();
    Object* const made = new (std::nothrow) Object{};
    if (!made) return KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY;
    made->kind = kind;
    file_name_of(kind, name, made->file_name);

    const auto obtained = [&]() -> uint32_t {
        RemovedFiles removed;  // let go of after the gate
        Gate gate;
        if (const uint32_t error = gate.enter(wish == Wish::create)) return error;
        uint32_t found = look(gate, made, wish, object, removed);
        if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND || wish != Wish::create) return found;
        // Only the first object of a process clears up: that is often enough, and later objects cost no more for it.
        if (!objects) remove_leftovers(gate, removed);
        gate.step_out();
        removed.let_go();
        if (gate.wait_for_maker_of(made->file_name)) {
            // branch: the folder is removed while this process waits for a maker that was stopped
            if (const uint32_t error = gate.step_in()) return error;
            found = look(gate, made, wish, object, removed);
            if (found != KZMKERNEL_ERROR_FILE_NOT_FOUND) return found;
            gate.step_out();
            removed.let_go();
        }
        return make_new(gate, size, made, object, removed);
    }();
    if (object != made) delete made;
    return obtained;
}

/// Removes the file of an object that this process has given up, if no other process has it. If the gate cannot be
/// locked the file stays, as after a kill: the next creator finds out that it is dead.
void remove_file_of(Object& object) {
    // While this process has views, it cannot find out whether a process that it forked still uses the memory.
    if (object.was_forked && is_viewed_here(object.device, object.inode)) {
        object.folder.reset();
        return;
    }
    RemovedFiles removed;  // let go of after the gate
    // The gate needs a new descriptor: a forked child may share ours, and with it the gate's lock.
    Gate gate;
    if (!(object.folder.is_there() ? gate.enter_again(object.folder.get()) : gate.enter(false) == 0)) return;
    object.folder.reset();
    Descriptor file = open_at(gate.folder(), object.file_name, read_flags);
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
    return obtain(kind, name, (size + page - 1) / page * page, Wish::create, object);
}

uint32_t open_object(Kind kind, const char* name, bool writable, Object*& object) noexcept {
    object = nullptr;
    const uint32_t result = obtain(kind, name, 0, writable ? Wish::write : Wish::read, object);
    return result == KZMKERNEL_ERROR_ALREADY_EXISTS ? 0 : result;
}

void drop_object(Object* object) noexcept {
    if (--object->handles > 0) return;
    forget_closed_mutexes();
    unlink_from(objects, object);
    const bool leaves_views = !object->was_forked && is_viewed_here(object->device, object->inode);
    for (KeptDescriptor* const file : {&object->read_file, &object->write_file}) {
        if (leaves_views && file->is_there()) mark_as_viewed(file->get());
        file->reset();
    }
    object->sibling.reset();
    const bool is_mutex = object->kind == Kind::mutex;
    if (is_mutex && must_stay_mapped(*object->mapped)) {
        object->next = closed_mutexes;
        closed_mutexes = object;
    } else if (is_mutex) {
        unmap_mutex(std::exchange(object->mapped, nullptr));
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
        unmap_mutex(object->mapped);
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
