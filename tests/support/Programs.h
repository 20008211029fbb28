#pragma once

#include <string>

namespace parlavox::test {

// Any thread. The programs under test, from the build tree.
std::string parlavoxBinary();
std::string parlavoxClientBinary();
std::string parlavoxSayBinary();

}  // namespace parlavox::test
