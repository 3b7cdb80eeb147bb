#include "host/kvhost_Table.h"

#include <algorithm>
#include <numeric>
#include <sstream>

#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

constexpr size_t kGap = 2;
constexpr size_t kNarrowest = 10;  // a text that is cut shorter says nothing

std::vector<std::string> Words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

/// Breaks a title at blanks so that its lines fit.
std::vector<std::string> Wrap(const std::string& title, size_t width) {
    std::vector<std::string> lines;
    for (const std::string& word : Words(title)) {
        if (!lines.empty() && Columns(lines.back()) + 1 + Columns(word) <= width) {
            lines.back() += ' ' + word;
        } else {
            lines.push_back(word);
        }
    }
    return lines;
}

std::string Pad(const std::string& text, size_t width, bool rightAligned) {
    const size_t columns = Columns(text);
    const std::string blanks(columns < width ? width - columns : 0, ' ');
    return rightAligned ? blanks + text : text + blanks;
}

std::string TrimmedLine(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line + '\n';
}

size_t Total(const std::vector<size_t>& widths) {
    const size_t gaps = widths.empty() ? 0 : (widths.size() - 1) * kGap;
    return std::accumulate(widths.begin(), widths.end(), gaps);
}

size_t WidestWord(const std::string& title) {
    size_t widest = 0;
    for (const std::string& word : Words(title)) {
        widest = std::max(widest, Columns(word));
    }
    return widest;
}

/// Widths at which every cell is whole and no word of a title is broken.
std::vector<size_t> NaturalWidths(const std::vector<Column>& columns, const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns.size(); ++i) {
        size_t width = WidestWord(columns[i].title);
        for (const Row& row : rows) {
            width = std::max(width, Columns(row[i]));
        }
        widths.push_back(width);
    }
    return widths;
}

/// Takes the excess from the widest text columns. @return false when the rows do not fit even so
bool Shrink(std::vector<size_t>& widths, const std::vector<Column>& columns, size_t available) {
    while (Total(widths) > available) {
        size_t widest = columns.size();
        for (size_t i = 0; i < columns.size(); ++i) {
            const size_t least = std::max(kNarrowest, WidestWord(columns[i].title));
            const bool shrinks = !columns[i].rightAligned && widths[i] > least;
            if (shrinks && (widest == columns.size() || widths[i] > widths[widest])) widest = i;
        }
        if (widest == columns.size()) return false;
        --widths[widest];
    }
    return true;
}

std::string FormatHeader(const std::vector<Column>& columns, const std::vector<size_t>& widths) {
    std::vector<std::vector<std::string>> titles;
    size_t height = 0;
    for (size_t i = 0; i < columns.size(); ++i) {
        titles.push_back(Wrap(columns[i].title, widths[i]));
        height = std::max(height, titles.back().size());
    }
    std::string text;
    for (size_t lineNumber = 0; lineNumber < height; ++lineNumber) {
        std::string line;
        for (size_t i = 0; i < columns.size(); ++i) {
            // Titles stand on the rule below them.
            const size_t above = height - titles[i].size();
            const std::string part = lineNumber >= above ? titles[i][lineNumber - above] : "";
            line += Pad(part, widths[i], columns[i].rightAligned) + std::string(kGap, ' ');
        }
        text += TrimmedLine(line);
    }
    std::string rule;
    for (const size_t width : widths) {
        rule += std::string(width, '-') + std::string(kGap, ' ');
    }
    return text + TrimmedLine(rule);
}

std::string FormatColumns(const std::vector<Column>& columns, const std::vector<Row>& rows,
                          const std::vector<size_t>& widths, bool cut) {
    std::string text = FormatHeader(columns, widths);
    for (const Row& row : rows) {
        std::string line;
        for (size_t i = 0; i < columns.size(); ++i) {
            const std::string cell = cut ? Cut(row[i], widths[i]) : row[i];
            line += Pad(cell, widths[i], columns[i].rightAligned) + std::string(kGap, ' ');
        }
        text += TrimmedLine(line);
    }
    return text;
}

std::string FormatBlocks(const std::vector<Column>& columns, const std::vector<Row>& rows, const Screen& screen) {
    size_t titleWidth = 0;
    for (const Column& column : columns) {
        titleWidth = std::max(titleWidth, Columns(column.title));
    }
    std::string text;
    for (const Row& row : rows) {
        if (!text.empty()) text += '\n';
        for (size_t i = 0; i < columns.size(); ++i) {
            const std::string line = Pad(columns[i].title + ":", titleWidth + 2, false) + row[i];
            text += TrimmedLine(screen.cut ? Cut(line, screen.width) : line);
        }
    }
    return text;
}

}  // namespace

std::string FormatTable(const std::vector<Column>& columns, const std::vector<Row>& rows, const Screen& screen) {
    const std::vector<size_t> natural = NaturalWidths(columns, rows);
    std::vector<size_t> widths = natural;
    if (!Shrink(widths, columns, screen.width)) return FormatBlocks(columns, rows, screen);
    return FormatColumns(columns, rows, screen.cut ? widths : natural, screen.cut);
}

std::string FormatObjects(const nlohmann::ordered_json& objects, const Screen& screen) {
    const auto cell = [](const nlohmann::ordered_json& value) -> std::string {
        if (value.is_null()) return "-";
        return value.is_string() ? value.get<std::string>() : value.dump();
    };
    std::vector<Column> columns;
    for (const auto& [title, value] : objects.front().items())
        columns.push_back({title, value.is_number()});
    std::vector<Row> rows;
    for (const auto& fields : objects) {
        Row& row = rows.emplace_back();
        for (const auto& value : fields)
            row.push_back(cell(value));
    }
    return FormatTable(columns, rows, screen);
}

std::string FormatClass(const ClassData& data, const Screen& screen) {
    const size_t count = data.instances.size();
    std::string text = ReadableName(ClassCodeName(data.id)) + " (" + std::to_string(data.id) +
                       "): " + std::to_string(count) + (count == 1 ? " instance\n" : " instances\n");
    if (count == 0 || data.instances.front().empty()) return text;

    std::vector<Column> columns;
    for (const Property& property : data.instances.front()) {
        columns.push_back({PropertyName(property.code), true});
    }
    std::vector<Row> rows;
    for (const std::vector<Property>& instance : data.instances) {
        Row row(columns.size());
        for (size_t i = 0; i < columns.size() && i < instance.size(); ++i) {
            row[i] = ToText(instance[i]);
            const Value& value = instance[i].value;
            const bool isText =
                std::holds_alternative<std::string>(value) || std::holds_alternative<std::vector<std::string>>(value);
            if (isText) columns[i].rightAligned = false;
        }
        rows.push_back(std::move(row));
    }
    return text + FormatTable(columns, rows, screen);
}

}  // namespace kvhost
