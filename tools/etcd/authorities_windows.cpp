#include "etcd/authorities_windows.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string_view>
#include <vector>

#include "etcd/error.h"
#include "etcd/gateway.h"
#include "etcd/server_name.h"
#include "wide_path.h"

namespace etcd {
namespace {

[[noreturn]] void throw_unusable(const std::string& file, const std::string& why) {
    throw Error("cannot use the authorities in " + presentable(file) + ": " + why + "; name another file, in PEM");
}

std::string bytes_of(const std::string& file) {
    std::ifstream input(std::filesystem::path(wide_path::for_call(file)), std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(input), {}};
    if (!input.is_open() || input.bad()) throw_unusable(file, "it cannot be read");
    return bytes;
}

bool add(HCERTSTORE store, std::string_view pem) {
    DWORD size = 0;
    const auto decode = [&](BYTE* bytes) {
        return CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER, bytes, &size,
                                    nullptr, nullptr) == TRUE;
    };
    if (!decode(nullptr)) return false;
    std::vector<BYTE> bytes(size);
    return decode(bytes.data()) && CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, bytes.data(), size,
                                                                    CERT_STORE_ADD_USE_EXISTING, nullptr) == TRUE;
}

bool has_name(PCCERT_CONTEXT certificate, const std::string& host) {
    const CERT_INFO& info = *certificate->pCertInfo;
    const CERT_EXTENSION* const names = CertFindExtension(szOID_SUBJECT_ALT_NAME2, info.cExtension, info.rgExtension);
    if (!names) return false;
    // The system's reader of names ends them at a NUL, so "localhost\0.evil.example" would be "localhost" there.
    CRYPT_SEQUENCE_OF_ANY* elements = nullptr;
    DWORD size = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, X509_SEQUENCE_OF_ANY, names->Value.pbData, names->Value.cbData,
                             CRYPT_DECODE_ALLOC_FLAG, nullptr, static_cast<void*>(&elements), &size)) {
        return false;
    }
    const std::unique_ptr<CRYPT_SEQUENCE_OF_ANY, decltype(&LocalFree)> owned(elements, LocalFree);
    const std::span<const CRYPT_DER_BLOB> all(elements->rgValue, elements->cValue);
    return std::ranges::any_of(all, [&](const CRYPT_DER_BLOB& name) {
        return is_name_of({name.pbData, name.cbData}, host);
    });
}

std::string text_of(DWORD flaws) {
    constexpr DWORD no_authority = CERT_TRUST_IS_PARTIAL_CHAIN | CERT_TRUST_IS_UNTRUSTED_ROOT;
    if (flaws & no_authority) return "its authority is not trusted; name its authority's file as authorities";
    if (flaws & CERT_TRUST_IS_NOT_TIME_VALID) return "it has expired, or is not valid yet; renew it, or set the clock";
    if (flaws & CERT_TRUST_IS_NOT_VALID_FOR_USAGE) return "it is not for servers; make one with the usage serverAuth";
    if (flaws & CERT_TRUST_IS_NOT_SIGNATURE_VALID) return "its signature is wrong; make another one";
    std::array<char, 32> code{};
    std::snprintf(code.data(), code.size(), "0x%08lx", flaws);
    return "the system's flaws of trust are " + std::string(code.data()) + "; make another one";
}

}  // namespace

Authorities::Authorities(const std::string& file) {
    if (file.empty()) return;
    store_.reset(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    // Without a store the system's authorities would be trusted.
    if (!store_) throw_unusable(file, "no store can be made for them, error " + std::to_string(GetLastError()));
    constexpr std::string_view begin = "-----BEGIN CERTIFICATE-----", end = "-----END CERTIFICATE-----";
    const std::string bytes = bytes_of(file);
    std::string_view rest = bytes;
    size_t count = 0;
    for (size_t at = 0; (at = rest.find(begin)) != std::string_view::npos; ++count) {
        rest.remove_prefix(at);
        const size_t stop = rest.find(end);
        if (stop == std::string_view::npos) throw_unusable(file, "its last certificate is cut off");
        if (!add(store_.get(), rest.substr(0, stop + end.size()))) {
            throw_unusable(file, "its certificate " + std::to_string(count + 1) + " cannot be decoded");
        }
        rest.remove_prefix(stop + end.size());
    }
    if (count == 0) throw_unusable(file, "it holds no certificate");

    CERT_CHAIN_ENGINE_CONFIG configuration{};
    // The size before Windows 8, which every system takes.
    configuration.cbSize = offsetof(CERT_CHAIN_ENGINE_CONFIG, dwExclusiveFlags);
    configuration.hExclusiveRoot = store_.get();
    HCERTCHAINENGINE engine = nullptr;
    if (!CertCreateCertificateChainEngine(&configuration, &engine)) {
        throw Error("cannot use authorities of etcd: error " + std::to_string(GetLastError()) +
                    "; remove them, and import them into the machine's store of trusted authorities");
    }
    engine_.reset(engine);
}

bool Authorities::has(PCCERT_CONTEXT certificate) const {
    const auto bytes_of = [](PCCERT_CONTEXT one) {
        return std::span<const BYTE>(one->pbCertEncoded, one->cbCertEncoded);
    };
    PCCERT_CONTEXT each = nullptr;
    while ((each = CertEnumCertificatesInStore(store_.get(), each)) != nullptr) {
        if (!std::ranges::equal(bytes_of(each), bytes_of(certificate))) continue;
        CertFreeCertificateContext(each);
        return true;
    }
    return false;
}

std::string Authorities::objection_to(PCCERT_CONTEXT certificate, const std::string& host) const {
    char server[] = szOID_PKIX_KP_SERVER_AUTH;
    char* usages[] = {server};
    CERT_CHAIN_PARA wanted{};
    wanted.cbSize = sizeof wanted;
    wanted.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
    wanted.RequestedUsage.Usage = {1, usages};
    constexpr DWORD fetch_nothing = CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL | CERT_CHAIN_DISABLE_AUTH_ROOT_AUTO_UPDATE;
    PCCERT_CHAIN_CONTEXT found = nullptr;
    if (!CertGetCertificateChain(engine_.get(), certificate, nullptr, certificate->hCertStore, &wanted, fetch_nothing,
                                 nullptr, &found)) {
        return "it cannot be checked, error " + std::to_string(GetLastError());
    }
    const std::unique_ptr<const CERT_CHAIN_CONTEXT, decltype(&CertFreeCertificateChain)> chain(
        found, CertFreeCertificateChain);
    if (chain->TrustStatus.dwErrorStatus != CERT_TRUST_NO_ERROR) return text_of(chain->TrustStatus.dwErrorStatus);

    // The engine was told to trust nobody else. This does not rely on it.
    const CERT_SIMPLE_CHAIN& links = *chain->rgpChain[chain->cChain - 1];
    if (store_ && !has(links.rgpElement[links.cElement - 1]->pCertContext)) {
        return text_of(CERT_TRUST_IS_UNTRUSTED_ROOT);
    }
    // The name is checked below, the same on every system. The constant is wininet.h's, which excludes other headers.
    constexpr DWORD ignore_name = 0x1000;
    std::wstring name = wide_path::to_wide(host);
    SSL_EXTRA_CERT_CHAIN_POLICY_PARA purpose{};
    purpose.cbSize = sizeof purpose;
    purpose.dwAuthType = AUTHTYPE_SERVER;
    purpose.fdwChecks = ignore_name;
    purpose.pwszServerName = name.data();
    CERT_CHAIN_POLICY_PARA policy{};
    policy.cbSize = sizeof policy;
    policy.pvExtraPolicyPara = &purpose;
    CERT_CHAIN_POLICY_STATUS status{};
    status.cbSize = sizeof status;
    if (!CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain.get(), &policy, &status) ||
        status.dwError != 0) {
        return "the system's policy refuses it, error " + std::to_string(status.dwError) + "; make another one";
    }
    if (!has_name(certificate, host)) {
        return "it is for another name; name the member as its certificate's alternative names do";
    }
    return {};
}

}  // namespace etcd
