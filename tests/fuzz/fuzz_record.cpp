#include "src/ResumeData.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>

// A resume file of anybody's making is read or refused; what is read can be written again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  try {
    const auto record = ravelin::ResumeData::instance(text);
    const auto written = record->to_json();
    if (ravelin::ResumeData::instance(written)->to_json() != written)
      std::abort();
  } catch (const std::exception&) {
    // Refused.
  }
  return 0;
}
