#include "etcd/secret_file.h"

#include "etcd/error.h"
#include "etcd/gateway.h"

namespace etcd {

std::string read_password_file(const std::string& name) {
    std::string password = read_secret_file(name);
    if (password.ends_with('\n')) password.pop_back();
    if (password.ends_with('\r')) password.pop_back();
    if (password.empty() || password.find('\n') != std::string::npos) {
        throw Error("cannot use the password in " + presentable(name) + ": it must be the file's only line");
    }
    return password;
}

}  // namespace etcd
