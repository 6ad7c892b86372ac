#include "ctl/terminal/table.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

bool BeginsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

// The beginning of a text that takes at most so many columns.
std::string Cut(const std::string& text, size_t columns) {
    size_t at = 0;
    for (size_t seen = 0; at < text.size(); ++at) {
        if (BeginsCharacter(text[at]) && seen++ == columns) {
            break;
        }
    }
    return text.substr(0, at);
}

}  // namespace

size_t CountColumns(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), BeginsCharacter));
}

std::string FormatTable(const std::vector<Row>& rows, const Stream& stream, size_t width) {
    std::vector<size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t at = 0; at < row.size(); ++at) {
            widths[at] = std::max(widths[at], CountColumns(OneLine(row[at].text)));
        }
    }
    std::string table;
    for (const Row& row : rows) {
        size_t left = width == 0 ? SIZE_MAX : width;
        std::string gap;
        for (size_t at = 0; at < row.size() && left > gap.size(); ++at) {
            table += gap;
            left -= gap.size();
            const std::string text = Cut(OneLine(row[at].text), left);
            table += stream.Paint(row[at].color, text);
            left -= CountColumns(text);
            gap = std::string(widths[at] - std::min(widths[at], CountColumns(text)) + 2, ' ');
        }
        table += '\n';
    }
    return table;
}

std::string Count(size_t number, const std::string& noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string SizeText(uint64_t bytes) {
    constexpr std::array<const char*, 5> kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
    auto size = static_cast<double>(bytes);
    size_t unit = 0;
    for (; size >= 1024 && unit + 1 < kUnits.size(); ++unit) {
        size /= 1024;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", size, kUnits.at(unit));
    return text.data();
}

}  // namespace qxpctl
