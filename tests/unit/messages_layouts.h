#ifndef TESTS_UNIT_MESSAGES_LAYOUTS_H
#define TESTS_UNIT_MESSAGES_LAYOUTS_H

#include <cstddef>
#include <string>
#include <vector>

/// One field of a message, as a table has it.
struct LayoutField
{
    std::string direction;  ///< "request" or "reply"; empty where both have the same layout
    std::string offset;
    std::string width;
    std::string type;
    std::string name;
};

bool operator==(const LayoutField& one, const LayoutField& other);
std::string describe(const LayoutField& field);

/// A message, or what a command keeps in its payload.
struct Layout
{
    std::string heading;  ///< that its table stands under
    std::size_t size;     ///< that the fields fill without a gap; 0 when they are picked out of a larger message
    std::vector<LayoutField> fields;
};

/// The layouts of the messages over sockets, from the structs of the code.
std::vector<Layout> socketLayouts();

/// All layouts.
std::vector<Layout> layouts();

#endif
