/// @file
/// A small renderer of plain-text tables with named columns.
#pragma once

#include "vxExport.h"

#include <cstdint>
#include <list>
#include <ostream>
#include <string>
#include <vector>

/** The plain-text table renderer behind the library's dumps. */
namespace libuiTable {

/** A column's index in its table, as createColumn returns it. */
using uiColumnId = unsigned int;

class uiTable;

/** One column: its header text and the width its texts need. */
class VX_API uiColumn
{
public:
    bool last = false;     ///< set on the newest column only; not read when drawing
    uint32_t maxWidth = 0; ///< widest text seen, the name included
    std::string name;      ///< the header text

    /** Sets the header text and widens the column to it. */
    void setColumnName(const std::string& columnName);
    /** Keeps maxWidth the largest width given. */
    void updateMaxWidth(unsigned int width);
};

/** One cell: its column and its text. */
class VX_API uiTableCell
{
public:
    uiColumnId column = 0; ///< the column's index
    std::string text;      ///< the text shown
};

/** One row of a table: a cell per column. */
class VX_API uiRow
{
public:
    std::vector<uiTableCell> cells; ///< by column index

    /** A row of `owner` with an empty cell for each of its columns. */
    explicit uiRow(uiTable& owner);
    /** Sets the cell's text and widens its column as needed; always true. */
    [[nodiscard]] bool Insert(uiColumnId column, const std::string& text);

private:
    uiTable* table;
};

/** Edge and rule strings: the first is each column's left edge, the second closes the line. */
class VX_API uiDecor
{
public:
    /** Eight strings; the drawing uses the first two. */
    std::vector<std::string> strings{"|", "|", "-", "-", "|", "|", "-", "-"};
};

/** A plain-text table: named columns, each as wide as its widest text, and rows of cells. */
class VX_API uiTable
{
public:
    std::vector<uiColumn> columns; ///< in order of creation; a column's index is its id
    std::list<uiRow> rows;         ///< in order of creation
    uiDecor decor;                 ///< the edge strings

    /** Appends a column, which becomes the last one. */
    uiColumnId createColumn(const std::string& name);
    /** Appends a row of empty cells, one per existing column. */
    uiRow& createRow();

    /** Accepted and ignored: decoration rows are not drawn. */
    void createDecorRow() {}

    /** Widens column `column` to `width` when needed; an unknown column is ignored. */
    void updateColumnMaxWidth(unsigned int column, unsigned int width);
    /** Writes rule, header, rule, the rows and a closing rule, flushing every line; the stream's
     *  flags and fill are as they were afterwards. */
    void Display(std::ostream& out);

private:
    VX_NO_EXPORT void displayRule(std::ostream& out) const;
    VX_NO_EXPORT void displayLine(std::ostream& out,
                                  const std::vector<const std::string*>& texts) const;
};

} // namespace libuiTable
