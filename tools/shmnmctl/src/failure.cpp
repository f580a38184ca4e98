#include "failure.h"

#include <new>

#include "picture/escape.h"
#include "picture/json.h"

namespace shmnmctl {
namespace {

using picture::ErrorKind;

struct Ending {
    Exit exit;
    const char* advice;  ///< which command or option helps; null: the error says all
};

Ending ending(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::invalid:
        case ErrorKind::no_such_word:
            return {Exit::usage, nullptr};
        case ErrorKind::invalid_condition:
            return {Exit::usage, "see \"shmnmctl query --help\""};
        case ErrorKind::no_such_key:
            return {Exit::no, "\"shmnmctl list\" shows all keys"};
        case ErrorKind::no_such_member:
            return {Exit::no, "\"shmnmctl status\" shows what there is"};
        case ErrorKind::member_exists:
            return {Exit::failed, "change it with \"shmnmctl modify\""};
        case ErrorKind::set_by_simulation:
            return {Exit::failed, "use \"shmnmctl simulate on SERVER\" or \"shmnmctl simulate off\""};
        case ErrorKind::shared_priority:
            return {Exit::failed, "give one of them another priority with \"shmnmctl modify server\""};
        case ErrorKind::needs_force:
            return {Exit::failed, "use --force to change it all the same"};
        case ErrorKind::no_region:
            return {Exit::no_region, "start the cluster, or run \"shmnmctl serve\""};
        case ErrorKind::lock_timeout:
            return {Exit::timeout, "retry with a longer --lock-timeout, or deal with its holder"};
        case ErrorKind::configuration_differs:
            return {Exit::failed,
                    "make them equal, or use --force to write the configuration's counts into the region"};
        case ErrorKind::no_configuration:
            return {Exit::failed, "put the cluster's configuration there, or name another file with --config"};
        case ErrorKind::not_a_dump:
            return {Exit::failed, "name a file written by \"shmnmctl dump\""};
        case ErrorKind::not_a_picture:
            return {Exit::failed, "name a file written by \"shmnmctl export\" or \"shmnmctl dump\""};
        case ErrorKind::damaged:
            return {Exit::failed, "\"shmnmctl verify\" tells more"};
        case ErrorKind::interrupted:
            return {Exit::failed, "run \"shmnmctl repair\" first"};
        case ErrorKind::no_notes:
            return {Exit::failed, "\"shmnmctl verify\" finds what the bytes alone can tell"};
        case ErrorKind::note_outdated:
            return {Exit::failed, "drop it with --discard"};
        case ErrorKind::change_in_doubt:
            return {Exit::failed,
                    "look at the region, then complete the change with --force or drop its note with --discard"};
        case ErrorKind::change_lost:
            return {Exit::failed, "put the region right by other commands, then drop the note with --discard"};
        case ErrorKind::set_together:
        case ErrorKind::not_whole:
        case ErrorKind::invalid_configuration:
        case ErrorKind::inexpressible:
        case ErrorKind::region_refused:
        case ErrorKind::refused:
        case ErrorKind::failed:
            break;
    }
    return {Exit::failed, nullptr};
}

std::string advised(const picture::Error& error) {
    const char* const advice = ending(error.kind).advice;
    return advice ? followed_by(error.what(), advice) : error.what();
}

}  // namespace

std::string followed_by(const std::string& what, const std::string& next) {
    return what + (what.ends_with('?') ? " " : "; ") + next;
}

Failure::Failure(const picture::Error& error) : Failure(ending(error.kind).exit, advised(error)) {}

Failure current_failure() {
    try {
        throw;
    } catch (const Failure& failure) {
        return failure;
    } catch (const picture::Error& error) {
        return Failure(error);
    } catch (const std::bad_alloc&) {
        return {Exit::failed, "out of memory"};
    } catch (const std::exception& error) {
        return {Exit::failed, picture::printable(error.what())};
    }
}

std::string to_text(const Failure& failure, bool json) {
    if (!json) return std::string(failure.what()) + "\n";
    picture::Json document = picture::document("error");
    document["status"] = static_cast<int>(failure.exit);
    document["message"] = picture::as_typed(failure.what());
    return picture::line(document);
}

std::string warning(const std::string& line, bool json) {
    if (!json) return "shmnmctl: warning: " + line + "\n";
    picture::Json document = picture::document("warning");
    document["message"] = picture::as_typed(line);
    return picture::line(document);
}

}  // namespace shmnmctl
