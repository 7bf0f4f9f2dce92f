#include "bench/Catalogue.h"

#include <random>
#include <span>

namespace korvane::bench {

namespace {

constexpr const char *makers[] = {"Aurora", "Blue", "Bright", "Calm", "Cedar", "Clear", "Cobalt", "Copper", "Daily", "Delta",
    "Drift", "Easy", "Ember", "Falcon", "Fern", "Flint", "Granite", "Harbor", "Indigo", "Juniper", "Kestrel", "Lark", "Linden",
    "Maple", "Meadow", "Mercury", "Nimbus", "North", "Oak", "Onyx", "Orchid", "Pebble", "Pine", "Polar", "Quartz", "Quick",
    "Raven", "River", "Sage", "Silver", "Simple", "Slate", "Solar", "Spruce", "Stone", "Summit", "Swift", "Tidal", "Timber",
    "Urban", "Velvet", "Violet", "Willow", "Winter", "Élan", "Über", "Señal", "云端", "晨光"};
constexpr const char *subjects[] = {"Archive", "Audio", "Backup", "Battery", "Bookmark", "Brush", "Calendar", "Camera", "Chart",
    "Chat", "Clipboard", "Cloud", "Code", "Color", "Contact", "Database", "Desktop", "Disk", "Document", "Download", "Drawing",
    "File", "Firewall", "Font", "Graph", "Icon", "Image", "Keyboard", "Language", "Letter", "Library", "Log", "Mail", "Map",
    "Markdown", "Memory", "Message", "Music", "Network", "Note", "Office", "Package", "Paper", "Password", "Photo", "Podcast",
    "Presentation", "Printer", "Process", "Project", "Radio", "Recipe", "Remote", "Scanner", "Screen", "Script", "Sound",
    "Spreadsheet", "System", "Table", "Task", "Terminal", "Text", "Time", "Video", "Voice", "Web", "Window"};
constexpr const char *roles[] = {"Analyzer", "Archiver", "Assistant", "Browser", "Builder", "Cleaner", "Client", "Composer",
    "Converter", "Creator", "Designer", "Editor", "Explorer", "Finder", "Inspector", "Keeper", "Manager", "Monitor", "Organizer",
    "Planner", "Player", "Reader", "Recorder", "Settings", "Studio", "Sync", "Tool", "Tracker", "Viewer", "Writer"};
constexpr const char *extras[] = {"account", "animation", "appointment", "article", "bitmap", "budget", "burning", "channel",
    "compression", "configuration", "connection", "control panel", "conversation", "debugger", "development", "device",
    "directory", "education", "electronics", "encryption", "engineering", "export", "filesystem", "finance", "folder", "gallery",
    "geometry", "graphics", "hardware", "instant messaging", "internet", "mathematics", "microphone", "multimedia", "navigation",
    "notebook", "outline", "partition", "performance", "photography", "picture", "preferences", "productivity", "programming",
    "publishing", "rendering", "retouching", "robotics", "science", "security", "sequencer", "server", "sharing", "statistics",
    "storage", "streaming", "translation", "typesetting", "utility", "vector", "virtual machine", "visualization", "volume",
    "wireless", "wordprocessor", "工具", "编辑器", "dépannage", "größe"};

class Words {
public:
    std::string from(std::span<const char *const> list)
    {
        // Not a distribution of the standard library: their results differ between libraries.
        return list[generator() % list.size()];
    }

private:
    std::mt19937 generator{20240817};
};

std::string lower(std::string text)
{
    for (char &letter : text)
        if (letter >= 'A' && letter <= 'Z')
            letter = char(letter - 'A' + 'a');
    return text;
}

} // namespace

std::vector<NamedCommand> catalogue(std::size_t count)
{
    Words words;
    std::vector<NamedCommand> all(count);
    for (NamedCommand &one : all) {
        const std::string maker = words.from(makers), subject = words.from(subjects), role = words.from(roles);
        one.title = maker + ' ' + subject + ' ' + role;
        one.keywords = {
            lower(maker + subject), lower(subject), lower(role), words.from(extras), words.from(extras), words.from(extras)};
    }
    all[count / 2].title = "Zephyr Weather Forecast";
    return all;
}

} // namespace korvane::bench
