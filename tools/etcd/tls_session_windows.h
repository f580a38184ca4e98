// A client's session of TLS 1.2, by the system's SChannel. It does no input or output: bytes that came from the member
// and bytes that are to be sent to it are handed over. Nothing can be sent over a session, and nothing that came over
// it is read, before the member's certificate has been found good. WinHTTP, which would be shorter, cannot promise
// this: it asks nobody between the handshake and the request, and under wine it told a password to an untrusted member.
#pragma once

#include <windows.h>

#define SECURITY_WIN32
#include <security.h>
#include <sspi.h>

#include <memory>
#include <string>
#include <string_view>

#include "etcd/authorities_windows.h"

namespace etcd {

/// Whom sessions trust, and what they may agree on. They have no certificate of their own.
class TlsCredentials {
  public:
    /// @param[in] authorities  a file; "": the system's
    /// @throws Error  they cannot be used
    explicit TlsCredentials(const std::string& authorities);
    ~TlsCredentials();
    TlsCredentials(const TlsCredentials&) = delete;
    TlsCredentials& operator=(const TlsCredentials&) = delete;

    const Authorities& authorities() const { return authorities_; }
    /// SChannel keeps its sessions there, so it changes although nothing else does.
    CredHandle* handle() const { return &handle_; }

  private:
    Authorities authorities_;
    mutable CredHandle handle_{};
};

class TlsSession {
  public:
    /// What came of a step.
    enum class Step { done, needs_more, ended, failed };

    TlsSession(std::shared_ptr<const TlsCredentials> credentials, std::string host);
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    /// Goes on with the handshake, and checks the certificate at its end.
    /// @param[in,out] received  what has come; what is used is removed
    /// @param[out]    sent      what must be sent, also before more can come
    Step shake_hands(std::string& received, std::string& sent);

    /// Makes a record of as much of the text as fits into one.
    /// @return the bytes that it holds; 0: it failed
    size_t encrypt(std::string_view text, std::string& sent);

    /// Reads one record.
    /// @param[out] text  what it holds, which may be nothing
    Step decrypt(std::string& received, std::string& text);

    /// Why a step failed, and what to do.
    const std::string& reason() const { return reason_; }

  private:
    Step fail(std::string reason);
    Step fail(SECURITY_STATUS status);
    Step trust();

    const std::shared_ptr<const TlsCredentials> credentials_;
    const std::string host_;
    CtxtHandle context_{};
    bool has_context_ = false;
    bool is_trusted_ = false;  ///< the handshake has ended, with a certificate that is good
    SecPkgContext_StreamSizes sizes_{};
    std::string reason_;
};

}  // namespace etcd
