// Where there is no ncurses.

#include "tools/top/TopScreen.h"

std::unique_ptr<TopScreen> TopScreen::Open() {
    return nullptr;
}
