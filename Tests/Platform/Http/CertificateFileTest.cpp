#include "Platform/Http/CertificateFile.h"

#include <gtest/gtest.h>

#include "Tests/Support/Certificates.h"

namespace {

using CertificateFile::certificatesIn;
using CertificateFile::subjectOf;

TEST(CertificateFileTest, EveryCertificateOfAFileHasItsSubject) {
  const auto first = makeAuthority("First");
  const auto second = makeAuthority(std::string(60, 's'));
  const auto server = makeServerCertificate(first, {"a.test"});
  const auto found = certificatesIn("# CAs\n" + first.pem + "\r\n" + first.key + second.pem + server.pem);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(subjectOf(found[0]), subjectInDer(first));
  EXPECT_EQ(subjectOf(found[1]), subjectInDer(second));
  EXPECT_EQ(subjectOf(found[2]), subjectInDer(server));
}

TEST(CertificateFileTest, Base64IsDecodedToTheLastByte) {
  const std::pair<const char*, const char*> rows[] = {
      {"", ""}, {"YQ==", "a"}, {"YWI=", "ab"}, {"YWJj", "abc"}, {"YW\r\nJjZA", "abcd"}, {"Y", ""}, {"*", ""}};
  for (const auto& [base64, bytes] : rows) {
    const auto found = certificatesIn(std::string("-----BEGIN CERTIFICATE-----\n") + base64 +
                                      "\n-----END CERTIFICATE-----\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0], bytes) << base64;
  }
}

TEST(CertificateFileTest, WhatIsNoCertificateHasNoSubject) {
  const auto whole = certificatesIn(makeAuthority().pem).at(0);
  const auto begin = whole.find(subjectOf(whole)) + subjectOf(whole).size();
  for (std::size_t size = 0; size < begin; ++size) {
    EXPECT_EQ(subjectOf(std::string_view(whole).substr(0, size)), "") << size;
  }
  for (const std::string& bytes : {std::string("\x30\x84\xff\xff\xff\xff"), std::string("\x30\x89", 2),
                                   std::string("\x30\x80\x30\x80", 4), std::string(100, '\x30')}) {
    EXPECT_EQ(subjectOf(bytes), "");
  }
  EXPECT_TRUE(certificatesIn("-----BEGIN CERTIFICATE-----\nYQ==").empty());
}

}  // namespace
