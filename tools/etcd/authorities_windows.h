// The authorities of a file, and the check of a server's certificate against exactly these: those of the system do not
// count. Windows keeps trusted certificates for a machine or a user, and none for a program.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <memory>
#include <string>

namespace etcd {

class Authorities {
  public:
    /// @param[in] file  "": the system's
    /// @throws Error  the file cannot be read, or holds no certificates in PEM
    explicit Authorities(const std::string& file);

    /// Whether one of them has signed a certificate that is valid now for this server, over the certificates that came
    /// with it. Nothing is fetched.
    /// @return why it is refused, and what to do; empty: it is good
    std::string objection_to(PCCERT_CONTEXT certificate, const std::string& host) const;

  private:
    bool has(PCCERT_CONTEXT certificate) const;

    struct Close {
        void operator()(void* store) const { CertCloseStore(store, 0); }
    };
    struct Free {
        void operator()(HCERTCHAINENGINE engine) const { CertFreeCertificateChainEngine(engine); }
    };
    std::unique_ptr<void, Close> store_;  ///< null: the system's
    std::unique_ptr<void, Free> engine_;  ///< null: the system's
};

}  // namespace etcd
