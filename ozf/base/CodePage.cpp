#include "ozf/base/CodePage.h"

namespace Quillon::Tessarine::Ozf
{

CodePage findCodePage(std::string const&) { return CodePage::Utf8; }

} // namespace Quillon::Tessarine::Ozf
