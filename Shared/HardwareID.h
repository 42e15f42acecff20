// The machine's hardware UUID. Never fails: the empty string stands for "unknown".
#pragma once

#include <string>
#include <string_view>

namespace HardwareID {

// What the system's own tool prints, where there is one; elsewhere the machine's id of the system's
// installation. Looked up once in a process, a failed look-up included.
const std::string& uuid();

// The id in the content of the file in which the installation keeps it: its first line; empty as long as that
// says that there is none yet.
std::string idIn(std::string_view machineIdFile);

// The UUID in what `ioreg` prints for the platform expert device; empty when no line holds one, or when the
// output is not UTF-8.
std::string uuidIn(std::string_view ioregOutput);

}  // namespace HardwareID
