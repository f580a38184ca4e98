// Runs a command as an operator would: with a token that has no administrator's rights. Its arguments are the command,
// which ends with it.
//
// wine has one user, and tests of access need another. So the first call, "as_operator --give-away", gives the live
// region and lock of KZMUTIL_NAMESPACE to the system: in their access lists the system stands where this user stood.
// This user is then one of the users whom only the entries for groups admit.
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "as_operator: %s failed with %lu\n", what, GetLastError());
    std::exit(99);
}

std::string security_of(HANDLE object) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    char* text = nullptr;
    constexpr SECURITY_INFORMATION wanted = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    if (GetSecurityInfo(object, SE_KERNEL_OBJECT, wanted, nullptr, nullptr, nullptr, nullptr, &descriptor) != 0 ||
        !ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor, SDDL_REVISION_1, wanted, &text, nullptr)) {
        fail("reading the security");
    }
    std::string copy = text;
    LocalFree(text);
    LocalFree(descriptor);
    return copy;
}

std::string own_sid() {
    HANDLE token = nullptr;
    char* text = nullptr;
    alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) ||
        !GetTokenInformation(token, TokenUser, user, sizeof user, &size) ||
        !ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &text)) {
        fail("finding this user");
    }
    return text;
}

/// Writes the object's security, as it was and as it is now.
void give_away(HANDLE object, const char* what) {
    if (!object) fail(what);
    const std::string before = security_of(object), me = own_sid();
    std::string text = before;
    for (size_t at = 0; (at = text.find(me, at)) != std::string::npos;) text.replace(at, me.size(), "SY");
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr) ||
        !SetKernelObjectSecurity(object, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, descriptor)) {
        fail("giving it away");
    }
    std::printf("%s %s\n%s %s\n", what, before.c_str(), what, security_of(object).c_str());
}

HANDLE without_administrators() {
    HANDLE token = nullptr, restricted = nullptr;
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof sid;
    if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, sid, &size)) fail("finding the administrators");
    SID_AND_ATTRIBUTES disabled{sid, 0};
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &token) ||
        !CreateRestrictedToken(token, DISABLE_MAX_PRIVILEGE, 1, &disabled, 0, nullptr, 0, nullptr, &restricted)) {
        fail("restricting the token");
    }
    return restricted;
}

/// A job whose processes end with this process.
HANDLE job_of_this_process() {
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!job || !SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
        fail("making a job");
    }
    return job;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 99;
    const char* const variable = std::getenv("KZMUTIL_NAMESPACE");
    const std::string prefix = variable ? variable : "";
    if (std::string(argv[1]) == "--give-away") {
        give_away(
            OpenFileMappingA(READ_CONTROL | WRITE_DAC | WRITE_OWNER, FALSE, (prefix + "oru_kzmshmnm_map").c_str()),
            "region");
        give_away(OpenMutexA(READ_CONTROL | WRITE_DAC | WRITE_OWNER, FALSE, (prefix + "oru_kzmshmnm_lock").c_str()),
                  "lock");
        return 0;
    }
    std::string line;
    for (int i = 1; i < argc; ++i) line += std::string(i > 1 ? " " : "") + '"' + argv[i] + '"';
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION child{};
    const HANDLE job = job_of_this_process();
    if (!CreateProcessAsUserA(without_administrators(), nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                              nullptr, nullptr, &startup, &child) ||
        !AssignProcessToJobObject(job, child.hProcess) || ResumeThread(child.hThread) == ~DWORD{0}) {
        fail("starting the command");
    }
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD status = 99;
    GetExitCodeProcess(child.hProcess, &status);
    return static_cast<int>(status);
}
