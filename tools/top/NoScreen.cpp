// For builds without ncurses.

#include "tools/top/TopScreen.h"

std::unique_ptr<TopScreen> TopScreen::Open() {
    return nullptr;
}
