#include "Tests/Support/Certificates.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

// A folder in which openssl is run.
struct Folder {
  Folder() {
    if (!::mkdtemp(path.data())) throw std::runtime_error("no folder for certificates");
  }
  ~Folder() { std::filesystem::remove_all(path); }

  void run(const std::string& arguments) const {
    const std::string command = "cd " + path + " && openssl " + arguments + " 2> errors";
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command + "\n" + read("errors"));
  }
  void write(const char* file, const std::string& content) const {
    std::ofstream(path + "/" + file) << content;
  }
  std::string read(const char* file) const {
    return (std::ostringstream() << std::ifstream(path + "/" + file).rdbuf()).str();
  }

  std::string path = "/tmp/quib-certificates-XXXXXX";
};

Certificate make(const Folder& folder, const std::string& commonName, const std::string& arguments) {
  folder.run("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj '/CN=" + commonName +
             "' -keyout key -out pem " + arguments);
  return {folder.read("pem"), folder.read("key")};
}

}  // namespace

Certificate makeAuthority(const std::string& commonName) {
  return make({}, commonName, "");
}

Certificate makeServerCertificate(const Certificate& authority, const std::vector<std::string>& names) {
  const Folder folder;
  folder.write("ca", authority.pem + authority.key);
  std::string alternatives;
  for (const auto& name : names)
    alternatives += (alternatives.empty() ? "" : ",") +
                    std::string(name.find_first_not_of("0123456789.:") == name.npos ? "IP:" : "DNS:") + name;
  return make(folder, "Test Server",
              "-CA ca -CAkey ca -addext basicConstraints=CA:FALSE -addext subjectAltName=" + alternatives);
}

std::string hashedName(const Certificate& certificate) {
  const Folder folder;
  folder.write("pem", certificate.pem);
  folder.run("x509 -noout -hash -in pem > hash");
  return folder.read("hash").substr(0, 8) + ".0";
}
