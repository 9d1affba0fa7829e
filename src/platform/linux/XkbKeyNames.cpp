#include "platform/linux/XkbKeyNames.h"

#include <array>

namespace zuv::XkbKeyNames {

namespace {

// Indexed by the stored key code (0-127). Letters, digits, punctuation, the
// editing and moving keys and F1-F20; keypad and media keys have no stored code.
constexpr std::array<const char *, 128> table = [] {
    std::array<const char *, 128> t{};
    const std::pair<int, const char *> rows[] = {
        {0, "AC01"},   {1, "AC02"},   {2, "AC03"},   {3, "AC04"},   {4, "AC06"},   {5, "AC05"},   {6, "AB01"},
        {7, "AB02"},   {8, "AB03"},   {9, "AB04"},   {10, "LSGT"},  {11, "AB05"},  {12, "AD01"},  {13, "AD02"},
        {14, "AD03"},  {15, "AD04"},  {16, "AD06"},  {17, "AD05"},  {18, "AE01"},  {19, "AE02"},  {20, "AE03"},
        {21, "AE04"},  {22, "AE06"},  {23, "AE05"},  {24, "AE12"},  {25, "AE09"},  {26, "AE07"},  {27, "AE11"},
        {28, "AE08"},  {29, "AE10"},  {30, "AD12"},  {31, "AD09"},  {32, "AD07"},  {33, "AD11"},  {34, "AD08"},
        {35, "AD10"},  {36, "RTRN"},  {37, "AC09"},  {38, "AC07"},  {39, "AC11"},  {40, "AC08"},  {41, "AC10"},
        {42, "BKSL"},  {43, "AB08"},  {44, "AB10"},  {45, "AB06"},  {46, "AB07"},  {47, "AB09"},  {48, "TAB"},
        {49, "SPCE"},  {50, "TLDE"},  {51, "BKSP"},  {53, "ESC"},   {64, "FK17"},  {79, "FK18"},  {80, "FK19"},
        {90, "FK20"},  {96, "FK05"},  {97, "FK06"},  {98, "FK07"},  {99, "FK03"},  {100, "FK08"}, {101, "FK09"},
        {103, "FK11"}, {105, "FK13"}, {106, "FK16"}, {107, "FK14"}, {109, "FK10"}, {111, "FK12"}, {113, "FK15"},
        {115, "HOME"}, {116, "PGUP"}, {117, "DELE"}, {118, "FK04"}, {119, "END"},  {120, "FK02"}, {121, "PGDN"},
        {122, "FK01"}, {123, "LEFT"}, {124, "RGHT"}, {125, "DOWN"}, {126, "UP"},
    };
    for (const auto &[code, name] : rows)
        t[size_t(code)] = name;
    return t;
}();

} // namespace

const char *forKeyCode(quint32 keyCode) { return keyCode < table.size() ? table[keyCode] : nullptr; }

} // namespace zuv::XkbKeyNames
