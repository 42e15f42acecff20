// The certificates of a PEM file, told apart by their subjects and decoded no further: a system's bundle
// holds some 150, of which a connection needs one. Nothing here fails; what is no certificate has no subject.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CertificateFile {

// Those whose subject is that name, in the order of the text, all in DER form; up to two zeros can follow a
// certificate's end.
std::vector<std::string> certificatesOf(std::string_view subject, std::string_view pem);

}  // namespace CertificateFile
