// The documents against the code: what they name must be there, and what is there must be named.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "Tests/Support/Sandbox.h"

namespace {

namespace fs = std::filesystem;

const fs::path source = QUIB_SOURCE_DIR;

std::vector<fs::path> documents() {
  std::vector<fs::path> found;
  for (const fs::path& directory : {source, source / "Docs"})
    for (const auto& entry : fs::directory_iterator(directory))
      if (entry.path().extension() == ".md") found.push_back(entry.path());
  return found;
}

std::string read(const fs::path& path) {
  return contentOf(path.string());
}

// All that the expression's first group finds in the text.
std::set<std::string> all(const std::string& text, const std::string& expression) {
  std::regex regex(expression);
  std::set<std::string> found;
  for (auto match = std::sregex_iterator(text.begin(), text.end(), regex); match != std::sregex_iterator();
       ++match)
    found.insert((*match)[1]);
  return found;
}

std::string productSource() {
  std::string text;
  for (const char* directory : {"Hook", "Shared", "Platform", "Server"})
    for (const auto& entry : fs::recursive_directory_iterator(source / directory))
      if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") text += read(entry.path());
  return text;
}

TEST(Documents, EveryLinkLeadsToAFile) {
  for (const fs::path& document : documents())
    for (const std::string& link : all(read(document), R"(\]\(([^)#]+)[^)]*\))"))
      EXPECT_TRUE(fs::exists(document.parent_path() / link)) << document.filename() << " links to " << link;
}

TEST(Documents, EveryPathOfTheTreeThatTheyNameIsThere) {
  for (const fs::path& document : documents())
    for (const std::string& path : all(read(document), R"(`((?:Hook|Shared|Platform|Server|Tests|Fuzz|)"
                                                       R"(Benchmarks|Packaging|Docs|scripts)/[\w./]*)`)"))
      EXPECT_TRUE(fs::exists(source / path)) << document.filename() << " names " << path;
}

TEST(Documents, EveryVariableIsReadByTheCode) {
  const std::string code = productSource();
  for (const fs::path& document : documents())
    for (const std::string& name : all(read(document), R"(`((?:OBRISK|CLAUDE_CODE|HTTPS?|NO)_[A-Z_]+)`)"))
      EXPECT_NE(code.find('"' + name + '"'), code.npos) << document.filename() << " names " << name;
  const std::string manual = read(source / "Packaging/quib-hook.1.in");
  for (const std::string& name : all(code, "\"((?:OBRISK|CLAUDE_CODE)_[A-Z_]+)\""))
    EXPECT_NE(manual.find(name), manual.npos) << "the manual page does not name " << name;
}

TEST(Documents, EveryOptionIsToldEverywhere) {
  Sandbox sandbox;
  const std::string usage = sandbox.run({"--help"}, "").output;
  std::set<std::string> options = all(usage, R"((--[a-z]+(?:-[a-z]+)?)(?![.\w-]))");
  EXPECT_EQ(options, (std::set<std::string>{"--app", "--help", "--install-claude", "--install-copilot",
                                            "--install-cursor", "--profile", "--version"}));
  std::string manual =
      std::regex_replace(read(source / "Packaging/quib-hook.1.in"), std::regex(R"(\\-)"), "-");
  for (const std::string& option : options) {
    EXPECT_NE(manual.find(option), manual.npos) << option;
    for (const char* completion : {"Packaging/quib-hook.bash", "Packaging/_quib-hook"})
      EXPECT_NE(read(source / completion).find(option), std::string::npos) << completion << " " << option;
  }
  for (const std::string& option : all(read(source / "README.md"), R"(quib-hook (--[a-z-]+))"))
    EXPECT_TRUE(options.contains(option)) << option;
}

TEST(Documents, EveryGuardKeyIsExplained) {
  std::set<std::string> keys = all(read(source / "Hook/Guard/GuardConfig.cpp"), R"re(apply\("([a-z_]+)")re");
  EXPECT_EQ(keys.size(), 16u);
  for (const char* document : {"README.md", "Docs/guard.md"})
    for (const std::string& key : keys)
      EXPECT_NE(read(source / document).find('`' + key + '`'), std::string::npos) << document << " " << key;
}

TEST(Documents, TellThisVersion) {
  Sandbox sandbox;
  std::string version = *all(sandbox.run({"--version"}, "").output, "quib-hook ([0-9.]+)").begin();
  EXPECT_NE(read(source / "CHANGELOG.md").find("## " + version + "\n"), std::string::npos);
}

TEST(Documents, EveryTargetThatTheyCallIsThere) {
  const std::string makefile = read(source / "Makefile");
  std::string targets;
  for (const std::string& line : all(makefile, "\n([a-z -]+):"))
    targets += " " + line + " ";
  for (const fs::path& document : documents())
    for (const std::string& target : all(read(document), R"((?:^|[\n`])(?:sudo )?make ([a-z-]+))"))
      EXPECT_NE(targets.find(" " + target + " "), targets.npos) << document.filename() << " make " << target;
}

}  // namespace
