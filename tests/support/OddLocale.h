// A locale in which the C library does not take "I" for the capital of "i", as
// it is in Turkish; made by the test itself, as no such locale need be
// installed.

#pragma once

#include "tests/support/TempDir.h"

#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace tqtest
{

// The letters of this process while the object lives.
class OddLocale
{
public:
  OddLocale()
  {
    std::ostringstream map;
    map << "<code_set_name> ODD\n<mb_cur_min> 1\n<mb_cur_max> 1\n<escape_char> /\nCHARMAP\n";
    for (unsigned code = 0; code < 0x80; ++code)
    {
      char line[32];
      std::snprintf(line, sizeof line, "<U%04X> /x%02x\n", code, code);
      map << line;
    }
    map << "END CHARMAP\n";
    writeText(m_folder / "odd.map", map.str());
    writeText(m_folder / "odd.src", "LC_CTYPE\nupper <U0041>;<U0049>\nlower <U0061>;<U0069>\n"
                                    "tolower (<U0041>,<U0061>)\ntoupper (<U0061>,<U0041>)\n"
                                    "END LC_CTYPE\n");
    // It complains about everything that a locale has besides letters.
    std::string const make = "localedef -c -f '" + m_folder / "odd.map" + "' -i '" +
                             m_folder / "odd.src" + "' '" + m_folder / "odd" + "' >'" +
                             m_folder / "log" + "' 2>&1";
    if (std::system(make.c_str()) == -1)
      ADD_FAILURE() << "no shell";
    setenv("LOCPATH", m_folder.path().c_str(), 1);
    if (std::setlocale(LC_CTYPE, "odd") == nullptr)
      ADD_FAILURE() << "no locale: " << readText(m_folder / "log");
    EXPECT_EQ('a', std::tolower('A'));
    EXPECT_EQ('I', std::tolower('I'));
  }
  ~OddLocale()
  {
    std::setlocale(LC_CTYPE, "C");
    unsetenv("LOCPATH");
  }
  OddLocale(OddLocale const&) = delete;
  OddLocale& operator=(OddLocale const&) = delete;

private:
  TempDir m_folder;
};

} // namespace tqtest
