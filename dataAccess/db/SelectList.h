#ifndef DATAACCESS_DB_SELECTLIST_H
#define DATAACCESS_DB_SELECTLIST_H

#include <map>
#include <string>
#include <string_view>

namespace dataAccess {

// Enters the names of a select list (the text between the select keyword and
// "from") into `fields` with their positions counted from 1. Names are split
// at commas, blanks are dropped and every other character is kept; the name
// after the last comma is entered even when empty. A name already present
// keeps its earlier position.
void mapSelectList(std::string_view list, std::map<std::string, int>& fields);

}  // namespace dataAccess

#endif
