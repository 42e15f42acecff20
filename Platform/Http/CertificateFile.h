// The certificates of a PEM file, told apart by their subjects and decoded no further: a system's bundle
// holds some 150, of which a connection needs one. Nothing here fails; what is no certificate has no subject.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CertificateFile {

// The DER form of each certificate block, in the order of the text.
std::vector<std::string> certificatesIn(std::string_view pem);

// The DER form of the subject's name; empty when `certificate` is none.
std::string_view subjectOf(std::string_view certificate);

}  // namespace CertificateFile
