#include "etcd/tls_session_windows.h"

#include <schannel.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "etcd/error.h"
#include "wide_path.h"

namespace etcd {
namespace {

/// A member's first messages are a few records. More is an attack.
constexpr size_t handshake_limit = size_t{256} * 1'024;

wchar_t package[] = UNISP_NAME_W;

std::string code_of(SECURITY_STATUS status) {
    std::array<char, 32> code{};
    std::snprintf(code.data(), code.size(), "error 0x%08lx", static_cast<unsigned long>(status));
    return code.data();
}

std::string text_of(SECURITY_STATUS status) {
    switch (status) {
        case SEC_I_INCOMPLETE_CREDENTIALS:
        case SEC_E_NO_CREDENTIALS:
            return "it demands a client certificate; use users of etcd instead";
        case SEC_E_ALGORITHM_MISMATCH:
        case SEC_E_UNSUPPORTED_FUNCTION:
            return "it has no version or cipher in common with TLS 1.2 of this system; permit TLS 1.2 there";
        case SEC_E_INVALID_TOKEN:
        case SEC_E_ILLEGAL_MESSAGE:
            return "its answer is not TLS, or it refuses TLS 1.2; look at its port, and at etcd's log";
        case SEC_E_MESSAGE_ALTERED:
        case SEC_E_DECRYPT_FAILURE:
        case SEC_E_OUT_OF_SEQUENCE:
            return "its message is damaged; look at what is between this machine and the member";
        default:
            return code_of(status) + " of SChannel; look at etcd's log";
    }
}

SecBuffer buffer_of(unsigned long type, void* bytes, size_t size) {
    return {static_cast<unsigned long>(size), type, bytes};
}

SecBufferDesc description_of(SecBuffer* buffers, unsigned long count) {
    return {SECBUFFER_VERSION, count, buffers};
}

/// What of `received` was not used, of which SChannel tells only the size.
void keep_rest(std::string& received, const SecBuffer* buffers, size_t count) {
    const auto* const end = buffers + count;
    const auto* const rest = std::find_if(
        buffers, end, [](const SecBuffer& each) { return each.BufferType == SECBUFFER_EXTRA && each.cbBuffer > 0; });
    const size_t left = rest == end ? 0 : rest->cbBuffer;
    received.erase(0, received.size() - std::min(left, received.size()));
}

}  // namespace

TlsCredentials::TlsCredentials(const std::string& authorities) : authorities_(authorities) {
    SCHANNEL_CRED wanted{};
    wanted.dwVersion = SCHANNEL_CRED_VERSION;
    wanted.grbitEnabledProtocols = SP_PROT_TLS1_2_CLIENT;
    // The certificate is checked here; no certificate of the user's store is shown.
    wanted.dwFlags = SCH_CRED_MANUAL_CRED_VALIDATION | SCH_CRED_NO_DEFAULT_CREDS | SCH_USE_STRONG_CRYPTO;
    const SECURITY_STATUS status = AcquireCredentialsHandleW(nullptr, package, SECPKG_CRED_OUTBOUND, nullptr, &wanted,
                                                             nullptr, nullptr, &handle_, nullptr);
    if (status != SEC_E_OK) {
        throw Error("cannot use https: this system's TLS 1.2 gives " + code_of(status) +
                    "; permit TLS 1.2 for clients");
    }
}

TlsCredentials::~TlsCredentials() {
    FreeCredentialsHandle(&handle_);
}

TlsSession::TlsSession(std::shared_ptr<const TlsCredentials> credentials, std::string host)
    : credentials_(std::move(credentials)), host_(std::move(host)) {}

TlsSession::~TlsSession() {
    if (has_context_) DeleteSecurityContext(&context_);
}

TlsSession::Step TlsSession::shake_hands(std::string& received, std::string& sent) {
    constexpr unsigned long wanted = ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT | ISC_REQ_CONFIDENTIALITY |
                                     ISC_REQ_INTEGRITY | ISC_REQ_STREAM | ISC_REQ_ALLOCATE_MEMORY |
                                     ISC_REQ_MANUAL_CRED_VALIDATION;
    std::wstring host = wide_path::to_wide(host_);
    for (;;) {
        if (received.size() > handshake_limit) return fail("its handshake has no end");
        if (has_context_ && received.empty()) return Step::needs_more;
        std::array input{buffer_of(SECBUFFER_TOKEN, received.data(), received.size()),
                         buffer_of(SECBUFFER_EMPTY, nullptr, 0)};
        std::array output{buffer_of(SECBUFFER_TOKEN, nullptr, 0)};
        SecBufferDesc inputs = description_of(input.data(), input.size());
        SecBufferDesc outputs = description_of(output.data(), output.size());
        unsigned long granted = 0;
        const SECURITY_STATUS status = InitializeSecurityContextW(
            credentials_->handle(), has_context_ ? &context_ : nullptr, host.data(), wanted, 0, 0,
            has_context_ ? &inputs : nullptr, 0, &context_, &outputs, &granted, nullptr);
        if (output[0].pvBuffer) {
            sent.append(static_cast<const char*>(output[0].pvBuffer), output[0].cbBuffer);
            FreeContextBuffer(output[0].pvBuffer);
        }
        if (status == SEC_E_INCOMPLETE_MESSAGE) return Step::needs_more;
        if (status != SEC_E_OK && status != SEC_I_CONTINUE_NEEDED) return fail(status);
        has_context_ = true;
        const size_t before = received.size();
        keep_rest(received, input.data(), input.size());
        if (status == SEC_E_OK) return trust();
        if (received.size() == before) return Step::needs_more;
    }
}

TlsSession::Step TlsSession::trust() {
    SecPkgContext_ConnectionInfo agreed{};
    SECURITY_STATUS status = QueryContextAttributesW(&context_, SECPKG_ATTR_CONNECTION_INFO, &agreed);
    if (status != SEC_E_OK) return fail(status);
    constexpr DWORD fewest_bits = 128;
    if (agreed.dwProtocol != SP_PROT_TLS1_2_CLIENT || agreed.dwCipherStrength < fewest_bits) {
        return fail(SEC_E_ALGORITHM_MISMATCH);
    }
    status = QueryContextAttributesW(&context_, SECPKG_ATTR_STREAM_SIZES, &sizes_);
    if (status != SEC_E_OK) return fail(status);
    PCCERT_CONTEXT found = nullptr;
    status = QueryContextAttributesW(&context_, SECPKG_ATTR_REMOTE_CERT_CONTEXT, static_cast<void*>(&found));
    if (status != SEC_E_OK) return fail(status);
    const std::unique_ptr<const CERT_CONTEXT, decltype(&CertFreeCertificateContext)> certificate(
        found, CertFreeCertificateContext);
    if (!certificate) return fail("it has shown no certificate");
    const std::string objection = credentials_->authorities().objection_to(certificate.get(), host_);
    if (!objection.empty()) {
        reason_ = "its certificate is refused: " + objection;
        return Step::failed;
    }
    is_trusted_ = true;
    return Step::done;
}

size_t TlsSession::encrypt(std::string_view text, std::string& sent) {
    if (!is_trusted_) {
        reason_ = "nothing is sent to a member that is not trusted";
        return 0;
    }
    const size_t size = std::min<size_t>(text.size(), sizes_.cbMaximumMessage);
    sent.assign(sizes_.cbHeader, '\0');
    sent += text.substr(0, size);
    sent.resize(sent.size() + sizes_.cbTrailer);
    char* const bytes = sent.data();
    std::array buffers{buffer_of(SECBUFFER_STREAM_HEADER, bytes, sizes_.cbHeader),
                       buffer_of(SECBUFFER_DATA, bytes + sizes_.cbHeader, size),
                       buffer_of(SECBUFFER_STREAM_TRAILER, bytes + sizes_.cbHeader + size, sizes_.cbTrailer),
                       buffer_of(SECBUFFER_EMPTY, nullptr, 0)};
    SecBufferDesc description = description_of(buffers.data(), buffers.size());
    const SECURITY_STATUS status = EncryptMessage(&context_, 0, &description, 0);
    if (status != SEC_E_OK) {
        sent.clear();
        fail(status);
        return 0;
    }
    sent.resize(size_t{buffers[0].cbBuffer} + buffers[1].cbBuffer + buffers[2].cbBuffer);
    return size;
}

TlsSession::Step TlsSession::decrypt(std::string& received, std::string& text) {
    text.clear();
    if (!is_trusted_) return fail("nothing is read from a member that is not trusted");
    if (received.empty()) return Step::needs_more;
    std::array buffers{buffer_of(SECBUFFER_DATA, received.data(), received.size()),
                       buffer_of(SECBUFFER_EMPTY, nullptr, 0), buffer_of(SECBUFFER_EMPTY, nullptr, 0),
                       buffer_of(SECBUFFER_EMPTY, nullptr, 0)};
    SecBufferDesc description = description_of(buffers.data(), buffers.size());
    const SECURITY_STATUS status = DecryptMessage(&context_, &description, 0, nullptr);
    switch (status) {
        case SEC_E_OK:
            break;
        case SEC_E_INCOMPLETE_MESSAGE: {
            const size_t longest = size_t{sizes_.cbHeader} + sizes_.cbMaximumMessage + sizes_.cbTrailer;
            return received.size() > 2 * longest ? fail("its message has no end") : Step::needs_more;
        }
        case SEC_I_CONTEXT_EXPIRED:
            return Step::ended;
        case SEC_I_RENEGOTIATE:
            return fail("it wants another handshake, in which it could become somebody else");
        default:
            return fail(status);
    }
    // The text is where the record was.
    for (const SecBuffer& each : buffers) {
        if (each.BufferType == SECBUFFER_DATA) text.append(static_cast<const char*>(each.pvBuffer), each.cbBuffer);
    }
    keep_rest(received, buffers.data(), buffers.size());
    return Step::done;
}

TlsSession::Step TlsSession::fail(std::string reason) {
    reason_ = (is_trusted_ ? "TLS failed: " : "no TLS: ") + std::move(reason);
    return Step::failed;
}

TlsSession::Step TlsSession::fail(SECURITY_STATUS status) {
    // The member's refusal of a client without a certificate may look like any other failure.
    const char* const hint =
        is_trusted_ ? "" : ", and start etcd without --client-cert-auth, which is not supported on Windows";
    return fail(text_of(status) + hint);
}

}  // namespace etcd
