// The expected texts the module must show, kept once in unittests/expected for the host and the VM
// tests alike.
#pragma once
#include <fstream>
#include <sstream>
#include <string>

inline std::string Expected(const std::string& name) {
  std::ifstream f(std::string(EXPECTED_DIR) + "/" + name, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// The module's version text ("1.01 built ..."), as the version line shows it.
inline std::string ExpectedVersion() {
  std::string line = Expected("version.txt");
  const std::string lead = "Wirecheck Version ";
  line = line.substr(0, line.find_first_of("\r\n"));
  return line.rfind(lead, 0) == 0 ? line.substr(lead.size()) : line;
}
