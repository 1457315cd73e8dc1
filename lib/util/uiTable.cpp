// Text table rendering.
#include "uiTable.h"

#include <iomanip>

namespace libuiTable {

namespace {

/** The padding changes the stream's adjustment and fill; this gives the caller them back, even
 *  when the stream throws. */
class formatKeeper
{
public:
    explicit formatKeeper(std::ostream& stream)
        : out(stream), flags(stream.flags()), fill(stream.fill())
    {}

    formatKeeper(const formatKeeper&) = delete;
    formatKeeper& operator=(const formatKeeper&) = delete;
    formatKeeper(formatKeeper&&) = delete;
    formatKeeper& operator=(formatKeeper&&) = delete;

    ~formatKeeper()
    {
        out.flags(flags);
        out.fill(fill);
    }

private:
    std::ostream& out;
    std::ios_base::fmtflags flags;
    char fill;
};

} // namespace

void uiColumn::setColumnName(const std::string& columnName)
{
    name = columnName;
    updateMaxWidth(static_cast<unsigned int>(columnName.size()));
}

void uiColumn::updateMaxWidth(unsigned int width)
{
    if (width > maxWidth) {
        maxWidth = width;
    }
}

uiRow::uiRow(uiTable& owner) : table(&owner)
{
    cells.resize(owner.columns.size());
    for (uiColumnId id = 0; id < cells.size(); ++id) {
        cells[id].column = id;
    }
}

bool uiRow::Insert(uiColumnId column, const std::string& text)
{
    if (column >= cells.size()) {
        cells.resize(column + 1);
        cells[column].column = column;
    }
    cells[column].text = text;
    table->updateColumnMaxWidth(column, static_cast<unsigned int>(text.size()));
    return true;
}

uiColumnId uiTable::createColumn(const std::string& name)
{
    for (uiColumn& column : columns) {
        column.last = false;
    }
    columns.emplace_back();
    columns.back().last = true;
    columns.back().setColumnName(name);
    return static_cast<uiColumnId>(columns.size() - 1);
}

uiRow& uiTable::createRow()
{
    rows.emplace_back(*this);
    return rows.back();
}

void uiTable::updateColumnMaxWidth(unsigned int column, unsigned int width)
{
    if (column < columns.size()) {
        columns[column].updateMaxWidth(width);
    }
}

void uiTable::displayRule(std::ostream& out) const
{
    for (const uiColumn& column : columns) {
        out << std::left << std::setfill('-') << std::setw(static_cast<int>(column.maxWidth) + 3)
            << decor.strings[0];
    }
    out << decor.strings[1] << std::endl;
}

void uiTable::displayLine(std::ostream& out, const std::vector<const std::string*>& texts) const
{
    for (size_t i = 0; i < columns.size(); ++i) {
        out << decor.strings[0] << ' ' << std::left << std::setfill(' ')
            << std::setw(static_cast<int>(columns[i].maxWidth)) << *texts[i] << ' ';
    }
    out << decor.strings[1] << std::endl;
}

void uiTable::Display(std::ostream& out)
{
    static const std::string empty;
    const formatKeeper keep(out);
    std::vector<const std::string*> texts(columns.size());
    for (size_t i = 0; i < columns.size(); ++i) {
        texts[i] = &columns[i].name;
    }
    displayRule(out);
    displayLine(out, texts);
    displayRule(out);
    for (const uiRow& row : rows) {
        for (size_t i = 0; i < columns.size(); ++i) {
            texts[i] = i < row.cells.size() ? &row.cells[i].text : &empty;
        }
        displayLine(out, texts);
    }
    displayRule(out);
}

} // namespace libuiTable
