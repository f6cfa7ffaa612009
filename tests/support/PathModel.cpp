#include "PathModel.h"

#include <vector>

namespace {

constexpr std::size_t kLongestText = 4095;

std::string WithoutTrailingSlashes(std::string text) {
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

std::vector<std::string> Components(const std::string& text) {
    std::vector<std::string> components(1);
    for (const char character : text) {
        if (character == '/') {
            components.emplace_back();
        } else {
            components.back() += character;
        }
    }
    return components;
}

// Every component but the last is taken for what it means; the last one stands as it is.
std::string Canonical(const std::string& absoluteText) {
    std::vector<std::string> components = Components(WithoutTrailingSlashes(absoluteText));
    const std::string last = components.back();
    components.pop_back();

    std::vector<std::string> kept;
    for (const std::string& component : components) {
        if (component.empty() || component == ".") continue;
        if (component != "..") {
            kept.push_back(component);
        } else if (!kept.empty()) {
            kept.pop_back();
        }
    }

    std::string canonical;
    for (const std::string& component : kept) canonical += "/" + component;
    return canonical + "/" + last;
}

}  // namespace

std::optional<std::string> ModelOfResolve(const std::string& text, const std::string& workingDirectory) {
    if (text.empty() || text.size() > kLongestText) return std::nullopt;
    if (text[0] == '/') return Canonical(text);

    const std::string directory = WithoutTrailingSlashes(workingDirectory);
    if (directory.size() + 1 + text.size() > kLongestText) return std::nullopt;
    return Canonical(directory + "/" + text);
}

std::optional<std::string> ModelOfJoin(const std::string& path, const std::string& tail) {
    return ModelOfResolve(path + "/" + tail, "/");
}
