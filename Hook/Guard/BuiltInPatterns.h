// The built-in patterns of the local guard, each list in the order in which it is tried.
#pragma once

#include <array>
#include <string_view>

#include "Hook/Guard/PatternSubject.h"

namespace BuiltIn {

// clang-format off
inline constexpr std::array defaultBlockedCommands{
    GuardPattern{R"(rm\s+(-[a-zA-Z]*f[a-zA-Z]*\s+(-[a-zA-Z]*r|--recursive)|(-[a-zA-Z]*r[a-zA-Z]*\s+(-[a-zA-Z]*f|--force))|--force\s+--recursive|--recursive\s+--force)\s+(/\s|/\s*$|~/|~\s|/\s*\*|\$HOME))", {"rm ", " -"}},
    GuardPattern{R"(rm\s+-rf\s+/\s*$)", {"rm ", " -rf ", " /"}},
    GuardPattern{R"(rm\s+-rf\s+~/)", {"rm ", " -rf ", " ~/"}},
    GuardPattern{R"(rm\s+-rf\s+\$HOME)", {"rm ", " -rf ", " $home"}},
    GuardPattern{R"(rm\s+-rf\s+\.\s*$)", {"rm ", " -rf ", " ."}},
    GuardPattern{R"(\bmkfs\b)", {"mkfs"}},
    GuardPattern{R"(\bdd\s+if=)", {"dd ", " if="}},
    GuardPattern{R"(>\s*/dev/sd)", {">", "/dev/sd"}},
    GuardPattern{R"(:\(\)\{\s*:\|:\s*&\s*\}\s*;)", {":(){", ":|:"}},
    GuardPattern{R"(\bshutdown\b)", {"shutdown"}},
    GuardPattern{R"(\breboot\b)", {"reboot"}},
    GuardPattern{R"(\bhalt\b)", {"halt"}},
    GuardPattern{R"(\binit\s+0\b)", {"init ", " 0"}},
    GuardPattern{R"(chmod\s+(-R\s+)?777\s+/)", {"chmod ", " 777 ", " /"}},
    GuardPattern{R"(curl\s+[^|]*\|\s*(ba)?sh)", {"curl ", "|", "sh"}},
    GuardPattern{R"(wget\s+[^|]*\|\s*(ba)?sh)", {"wget ", "|", "sh"}},
    GuardPattern{R"(curl\s+[^|]*\|\s*sudo\s+(ba)?sh)", {"curl ", "|", "sudo "}},
};

inline constexpr std::array defaultWarnCommands{
    GuardPattern{R"(rm\s+-rf\b)", {"rm ", " -rf"}},
    GuardPattern{R"(rm\s+-r\s+-f\b)", {"rm ", " -r ", " -f"}},
    GuardPattern{R"(rm\s+-fr\b)", {"rm ", " -fr"}},
    GuardPattern{R"(kill\s+-9\b)", {"kill ", " -9"}},
    GuardPattern{R"(pkill\s+-9\b)", {"pkill ", " -9"}},
    GuardPattern{R"(killall\b)", {"killall"}},
    GuardPattern{R"(docker\s+system\s+prune)", {"docker ", " system ", " prune"}},
    GuardPattern{R"(docker\s+rm\s+-f)", {"docker ", " rm ", " -f"}},
    GuardPattern{R"(docker\s+rmi\s+-f)", {"docker ", " rmi ", " -f"}},
    GuardPattern{R"(DROP\s+(TABLE|DATABASE|SCHEMA)\b)", {"drop "}},
    GuardPattern{R"(TRUNCATE\s+TABLE\b)", {"truncate ", " table"}},
    GuardPattern{R"(DELETE\s+FROM\s+\w+\s*;?\s*$)", {"delete ", " from "}},
};

inline constexpr auto defaultProtectedFiles = std::to_array<std::string_view>({
    ".env",
    ".env.*",
    ".env.local",
    ".env.production",
    ".env.staging",
    "**/credentials*",
    "**/secrets.yml",
    "**/secrets.yaml",
    "**/secrets.json",
    "**/*.pem",
    "**/*.key",
    "**/id_rsa",
    "**/id_rsa.pub",
    "**/id_ed25519",
    "**/id_ed25519.pub",
    "**/.ssh/authorized_keys",
    "**/.ssh/known_hosts",
    "**/.aws/credentials",
    "**/.aws/config",
    "**/.config/gcloud/*",
    ".git/config",
    "**/.netrc",
    "**/.npmrc",
    "**/.pypirc",
});

inline constexpr auto defaultWarnFiles = std::to_array<std::string_view>({
    "*.lock",
    "*lock.json",
    "*lock.yaml",
    ".gitignore",
    ".dockerignore",
});

inline constexpr auto defaultProtectedBranches = std::to_array<std::string_view>({
    "main",
    "master",
    "develop",
    "release/*",
    "production",
});

inline constexpr auto defaultInfraFiles = std::to_array<std::string_view>({
    "Dockerfile",
    "Dockerfile.*",
    "docker-compose*.yml",
    "docker-compose*.yaml",
    ".github/**",
    ".gitlab-ci.yml",
    ".gitlab-ci/**",
    "Jenkinsfile",
    ".circleci/**",
    "**/*.tf",
    "**/terraform/**",
    "**/k8s/**",
    "**/kubernetes/**",
    "**/helm/**",
    "Makefile",
    "justfile",
    "Procfile",
    ".buildpacks",
    "fly.toml",
    "render.yaml",
    "vercel.json",
    "netlify.toml",
});

// The expressions of the git rules; no configuration changes them.
inline constexpr GuardPattern gitForcePush{R"(git\s+push\s+.*?(--force|-f)\b)", {" push ", "-f"}};
inline constexpr GuardPattern gitForcePushLease{R"(git\s+push\s+.*?--force-with-lease\b)", {" push ", "--force-with-lease"}};
inline constexpr GuardPattern gitHardReset{R"(git\s+reset\s+--hard\b)", {" reset ", " --hard"}};
inline constexpr GuardPattern gitClean{R"(git\s+clean\s+.*?-[a-zA-Z]*f)", {" clean ", "-", "f"}};
inline constexpr GuardPattern gitCheckoutDot{R"(git\s+checkout\s+\.\s*$)", {" checkout ", " ."}};
inline constexpr GuardPattern gitRestoreDot{R"(git\s+restore\s+\.\s*$)", {" restore ", " ."}};
inline constexpr GuardPattern gitConfigCmd{R"(git\s+config\b)", {"git ", " config"}};
inline constexpr GuardPattern gitPush{R"(git\s+push\b)", {"git ", " push"}};
inline constexpr GuardPattern gitBranchDelete{R"(git\s+branch\s+.*?-D\b)", {" branch ", "-d"}};
inline constexpr GuardPattern gitRebase{R"(git\s+rebase\b)", {"git ", " rebase"}};

// Addresses of this machine and of private networks.
inline constexpr std::array internalURLPatterns{
    GuardPattern{R"(^https?://localhost\b)", {"://localhost"}},
    GuardPattern{R"(^https?://127\.0\.0\.1\b)", {"://127.0.0.1"}},
    GuardPattern{R"(^https?://0\.0\.0\.0\b)", {"://0.0.0.0"}},
    GuardPattern{R"(^https?://10\.\d+\.\d+\.\d+)", {"://10."}},
    GuardPattern{R"(^https?://172\.(1[6-9]|2\d|3[01])\.\d+\.\d+)", {"://172."}},
    GuardPattern{R"(^https?://192\.168\.\d+\.\d+)", {"://192.168."}},
    GuardPattern{R"(^https?://169\.254\.\d+\.\d+)", {"://169.254."}},
    GuardPattern{R"(^https?://metadata\.google\.internal)", {"://metadata.google.internal"}},
    GuardPattern{R"(^https?://\[::1\])", {"://[::1]"}},
};

// clang-format on

}  // namespace BuiltIn
