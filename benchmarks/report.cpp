// The files of a report: one Markdown table a group of cases, and a plot.
#include <gnu/libc-version.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "harness.h"

namespace bench {
namespace {

std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* text, ...) {
    char buffer[512];
    va_list arguments;
    va_start(arguments, text);
    std::vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    return buffer;
}

std::string cpu_model() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    return "unknown processor";
}

std::string machine() {
    utsname kernel;
    uname(&kernel);
    return cpu_model() + ", " + std::to_string(std::thread::hardware_concurrency()) +
           " cores; Linux " + kernel.release + "; glibc " + gnu_get_libc_version() + "; g++ " +
           __VERSION__;
}

// Groups in the order of their first case.
std::vector<std::vector<Case>> groups_of(const std::vector<Case>& cases) {
    std::vector<std::vector<Case>> groups;
    for (const Case& one : cases) {
        auto group = std::find_if(groups.begin(), groups.end(), [&](const std::vector<Case>& seen) {
            return seen.front().group == one.group;
        });
        if (group == groups.end()) group = groups.emplace(groups.end());
        group->push_back(one);
    }
    return groups;
}

// Contenders of a group in the order of their first appearance.
std::vector<std::string> names_of(const std::vector<Case>& group) {
    std::vector<std::string> names;
    for (const Case& one : group)
        for (const Figure& figure : one.figures)
            if (std::find(names.begin(), names.end(), figure.name) == names.end())
                names.push_back(figure.name);
    return names;
}

const Figure* find(const Case& one, const std::string& name) {
    for (const Figure& figure : one.figures)
        if (figure.name == name) return &figure;
    return nullptr;
}

std::string time_text(Ns ns) {
    if (ns < 100) return format("%.1f ns", ns);
    if (ns < 1e4) return format("%.0f ns", ns);
    if (ns < 1e7) return format("%.1f µs", ns / 1e3);
    return format("%.1f ms", ns / 1e6);
}

std::string value_text(double value, Unit unit) {
    return unit == Unit::kTime ? time_text(value) : format("%.0f B", value);
}

std::string ratio_text(double ratio) {
    return format(ratio < 0.1 ? "%.4f" : "%.2f", ratio);
}

void write_group(std::ofstream& file, const std::vector<Case>& group) {
    const auto names = names_of(group);
    file << "\n## " << group.front().group << "\n\n| |";
    for (const std::string& name : names)
        file << ' ' << name << " |";
    file << "\n|---|";
    for (std::size_t i = 0; i < names.size(); ++i)
        file << "---|";
    for (const Case& one : group) {
        file << "\n| " << one.label << " |";
        for (const std::string& name : names) {
            const Figure* figure = find(one, name);
            if (figure == nullptr) {
                file << " |";
                continue;
            }
            file << ' ' << value_text(figure->median, one.unit);
            if (one.unit == Unit::kTime) file << " (" << time_text(figure->minimum) << ')';
            file << ", **" << ratio_text(figure->ratio) << "** |";
        }
    }
    file << '\n';
}

// ---- plots ----

constexpr double kWidth = 640, kHeight = 300, kLeft = 70, kRight = 200, kTop = 40, kBottom = 45;
const char* const kColours[] = {"#444444", "#d1495b", "#00798c", "#edae49", "#66a182",
                                "#8d6a9f", "#2e4057", "#c17817", "#5b8e7d", "#bc4b51"};

std::string escaped(const std::string& text) {
    std::string result;
    for (char c : text) {
        if (c == '&')
            result += "&amp;";
        else if (c == '<')
            result += "&lt;";
        else if (c == '>')
            result += "&gt;";
        else
            result += c;
    }
    return result;
}

// A logarithmic axis between two pixels.
struct Axis {
    double low, high, from, to;
    double at(double value) const {
        const double span = std::log(high / low);
        return from + (to - from) * (span > 0 ? std::log(value / low) / span : 0.5);
    }
};

void text(std::ofstream& svg, double x, double y, const char* anchor, const std::string& words) {
    svg << format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\">", x, y, anchor) << escaped(words)
        << "</text>\n";
}

void line(std::ofstream& svg, double x1, double y1, double x2, double y2) {
    svg << format("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#ddd\"/>\n", x1,
                  y1, x2, y2);
}

void curve(std::ofstream& svg, const std::vector<Case>& group, const std::string& name,
           const char* colour, const Axis& x, const Axis& y) {
    std::string points, dots;
    for (const Case& one : group) {
        const Figure* figure = find(one, name);
        if (figure == nullptr) continue;
        const double px = x.at(one.x), py = y.at(figure->median);
        points += format("%.1f,%.1f ", px, py);
        dots += format("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\" fill=\"%s\"/>\n", px, py, colour);
    }
    svg << "<polyline fill=\"none\" stroke-width=\"1.6\" stroke=\"" << colour << "\" points=\""
        << points << "\"/>\n"
        << dots;
}

// Figures against size, both logarithmic.
void curves(std::ofstream& svg, const std::vector<Case>& group, const std::string& x_axis,
            double top) {
    Axis x{group.front().x, group.back().x, kLeft, kWidth - kRight};
    Ns least = 1e300, most = 0;
    for (const Case& one : group)
        for (const Figure& figure : one.figures) {
            least = std::min(least, figure.median);
            most = std::max(most, figure.median);
        }
    Axis y{std::pow(10, std::floor(std::log10(least))), std::pow(10, std::ceil(std::log10(most))),
           top + kHeight - kBottom, top + kTop};
    for (double ns = y.low; ns <= y.high * 1.01; ns *= 10) {
        line(svg, kLeft, y.at(ns), kWidth - kRight, y.at(ns));
        text(svg, kLeft - 6, y.at(ns) + 4, "end", value_text(ns, group.front().unit));
    }
    for (const Case& one : group)
        text(svg, x.at(one.x), top + kHeight - kBottom + 16, "middle", one.label);
    text(svg, (kLeft + kWidth - kRight) / 2, top + kHeight - 10, "middle", x_axis);
    const auto names = names_of(group);
    for (std::size_t i = 0; i < names.size(); ++i) {
        const char* colour = kColours[i % std::size(kColours)];
        curve(svg, group, names[i], colour, x, y);
        const double at = top + kTop + 16 * static_cast<double>(i);
        svg << format("<rect x=\"%.1f\" y=\"%.1f\" width=\"10\" height=\"10\" fill=\"%s\"/>\n",
                      kWidth - kRight + 14, at, colour);
        text(svg, kWidth - kRight + 30, at + 9, "start", names[i]);
    }
}

// One bar a contender and case: the ratio to the raw primitive.
double bars(std::ofstream& svg, const std::vector<Case>& group, double top) {
    double most = 1, y = top + kTop;
    for (const Case& one : group)
        for (const Figure& figure : one.figures)
            most = std::max(most, figure.ratio);
    const double left = 250, width = kWidth + 60 - left;
    for (const Case& one : group) {
        text(svg, 10, y + 10, "start", one.label);
        y += 16;
        for (std::size_t i = 0; i < one.figures.size(); ++i, y += 16) {
            const Figure& figure = one.figures[i];
            text(svg, left - 8, y + 10, "end", figure.name);
            svg << format(
                "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"12\" fill=\"%s\"/>\n", left, y,
                std::max(figure.ratio / most * width, 1.0), kColours[i % std::size(kColours)]);
            text(svg, left + figure.ratio / most * width + 5, y + 10, "start",
                 ratio_text(figure.ratio) + " x, " + value_text(figure.median, one.unit));
        }
        y += 8;
    }
    return y;
}

}  // namespace

void write_markdown(const std::string& path, const Info& info, const std::string& command,
                    const std::vector<Case>& cases) {
    std::ofstream file(path);
    file << "# " << info.title << "\n\nMade by `" << command << "` on " << machine()
         << ".\n\nOne operation: " << info.operation
         << ". Cells: median (minimum), **ratio of the medians to the first column**.\n";
    if (!info.notes.empty()) file << '\n' << info.notes << '\n';
    file << "\n![" << info.title << "](" << info.name << ".svg)\n";
    for (const auto& group : groups_of(cases))
        write_group(file, group);
}

void write_plot(const std::string& path, const Info& info, const std::vector<Case>& cases) {
    std::ofstream svg(path);
    const std::string body_path = path + ".part";
    double top = 0;
    {
        std::ofstream body(body_path);
        for (const auto& group : groups_of(cases)) {
            body << "<g font-weight=\"bold\">";
            text(body, 10, top + 22, "start", group.front().group);
            body << "</g>\n";
            if (info.x_axis.empty() || group.size() < 2) {
                top = bars(body, group, top);
            } else {
                curves(body, group, info.x_axis, top);
                top += kHeight;
            }
        }
    }
    svg << format(
               "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
               "font-family=\"sans-serif\" font-size=\"12\">\n",
               kWidth + 220, top + 10)
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
        << std::ifstream(body_path).rdbuf() << "</svg>\n";
    std::remove(body_path.c_str());
}

}  // namespace bench
