#ifndef PLATFORM_HOST_ESCAPED_TEXT_H
#define PLATFORM_HOST_ESCAPED_TEXT_H

#include <string>
#include <string_view>

/**
 * Makes text safe to print on one line of a terminal.
 *
 * Newline, carriage return and tab become \n, \r and \t; every other control character (ESC, DEL and the C1 range
 * U+0080 to U+009F included) and every byte that is not valid UTF-8 becomes \xNN. Valid UTF-8 stays as it is, and so
 * does a backslash: the result is for reading, it cannot be turned back.
 */
std::string escapedText(std::string_view text);

#endif
