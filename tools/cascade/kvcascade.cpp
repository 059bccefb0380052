// kvcascade: turns a published rectangle-feature cascade (the XML layout of
// OpenCV's "opencv-cascade-classifier", stage type BOOST, feature type HAAR,
// stumps only, no tilted features) into the driver's const tables
// (driver/imaging/cascade.h), as a C++ source file compiled into the driver.
// The licence notice of the cascade (the XML's leading comment) is copied
// into the generated file.
//
//   kvcascade INPUT.xml OUTPUT.cpp
//
// Exit codes: 0 written, 1 unreadable or unsupported input, 2 bad command line.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// ---- a small XML reader: elements, their text, comments skipped ----------------

struct Element {
    std::string name;
    std::string text;
    std::vector<std::unique_ptr<Element>> children;

    const Element* Child(const std::string& childName) const
    {
        for (const auto& c : children) {
            if (c->name == childName) {
                return c.get();
            }
        }
        return nullptr;
    }
};

class XmlReader {
public:
    explicit XmlReader(std::string text) : text_(std::move(text)) {}

    // The document's root element; throws std::runtime_error on bad input.
    std::unique_ptr<Element> Parse()
    {
        auto root = std::make_unique<Element>();
        std::vector<Element*> open{root.get()};
        while (pos_ < text_.size()) {
            const size_t lt = text_.find('<', pos_);
            open.back()->text += text_.substr(pos_, lt == std::string::npos ? std::string::npos : lt - pos_);
            if (lt == std::string::npos) {
                break;
            }
            pos_ = lt;
            if (Skip("<!--", "-->") || Skip("<?", "?>") || Skip("<!", ">")) {
                continue;
            }
            const size_t gt = text_.find('>', pos_);
            if (gt == std::string::npos) {
                throw std::runtime_error("unterminated tag");
            }
            std::string tag = text_.substr(pos_ + 1, gt - pos_ - 1);
            pos_ = gt + 1;
            if (!tag.empty() && tag[0] == '/') {
                if (open.size() < 2 || open.back()->name != tag.substr(1)) {
                    throw std::runtime_error("mismatched </" + tag.substr(1) + ">");
                }
                open.pop_back();
                continue;
            }
            const bool empty = !tag.empty() && tag.back() == '/';
            if (empty) {
                tag.pop_back();
            }
            auto element = std::make_unique<Element>();
            element->name = tag.substr(0, tag.find_first_of(" \t\r\n"));
            Element* raw = element.get();
            open.back()->children.push_back(std::move(element));
            if (!empty) {
                open.push_back(raw);
            }
        }
        if (open.size() != 1) {
            throw std::runtime_error("unclosed <" + open.back()->name + ">");
        }
        return root;
    }

    // The first comment of the document (the cascade's licence notice).
    std::string FirstComment() const
    {
        const size_t start = text_.find("<!--");
        const size_t end = start == std::string::npos ? start : text_.find("-->", start);
        return end == std::string::npos ? std::string() : text_.substr(start + 4, end - start - 4);
    }

private:
    bool Skip(const char* open, const char* close)
    {
        if (text_.compare(pos_, std::char_traits<char>::length(open), open) != 0) {
            return false;
        }
        const size_t end = text_.find(close, pos_);
        if (end == std::string::npos) {
            throw std::runtime_error(std::string("unterminated ") + open);
        }
        pos_ = end + std::char_traits<char>::length(close);
        return true;
    }

    std::string text_;
    size_t pos_ = 0;
};

const Element& Need(const Element* parent, const std::string& name)
{
    const Element* e = parent != nullptr ? parent->Child(name) : nullptr;
    if (e == nullptr) {
        throw std::runtime_error("missing <" + name + ">");
    }
    return *e;
}

std::vector<double> Numbers(const Element& e)
{
    std::istringstream in(e.text);
    std::vector<double> values;
    double v = 0;
    while (in >> v) {
        values.push_back(v);
    }
    return values;
}

double Number(const Element& e)
{
    const std::vector<double> v = Numbers(e);
    if (v.size() != 1) {
        throw std::runtime_error("<" + e.name + "> is not one number");
    }
    return v[0];
}

// ---- the cascade ----------------------------------------------------------------

struct Rect {
    int x, y, w, h;
    double weight;
};

struct Cascade {
    int width = 0, height = 0;
    std::vector<int> stageLengths;
    std::vector<double> stageThresholds;
    std::vector<int> featureOf;  // per weak classifier, its feature's index
    std::vector<double> thresholds, leaves;
    std::vector<std::vector<Rect>> features;
};

Cascade ReadCascade(const Element& root)
{
    const Element& cascade = Need(&Need(&root, "opencv_storage"), "cascade");
    if (Need(&cascade, "stageType").text.find("BOOST") == std::string::npos ||
        Need(&cascade, "featureType").text.find("HAAR") == std::string::npos) {
        throw std::runtime_error("not a boosted cascade of rectangle features");
    }
    Cascade c;
    c.width = static_cast<int>(Number(Need(&cascade, "width")));
    c.height = static_cast<int>(Number(Need(&cascade, "height")));
    for (const auto& stage : Need(&cascade, "stages").children) {
        const Element& weak = Need(stage.get(), "weakClassifiers");
        c.stageLengths.push_back(static_cast<int>(weak.children.size()));
        c.stageThresholds.push_back(Number(Need(stage.get(), "stageThreshold")));
        for (const auto& w : weak.children) {
            const std::vector<double> node = Numbers(Need(w.get(), "internalNodes"));
            const std::vector<double> leaf = Numbers(Need(w.get(), "leafValues"));
            // A stump: one node whose left and right are the two leaves.
            if (node.size() != 4 || node[0] != 0 || node[1] != -1 || leaf.size() != 2) {
                throw std::runtime_error("a weak classifier is not a stump (trees are not supported)");
            }
            c.featureOf.push_back(static_cast<int>(node[2]));
            c.thresholds.push_back(node[3]);
            c.leaves.insert(c.leaves.end(), leaf.begin(), leaf.end());
        }
    }
    for (const auto& f : Need(&cascade, "features").children) {
        if (const Element* tilted = f->Child("tilted"); tilted != nullptr && Number(*tilted) != 0) {
            throw std::runtime_error("tilted features are not supported");
        }
        std::vector<Rect> rects;
        for (const auto& r : Need(f.get(), "rects").children) {
            const std::vector<double> v = Numbers(*r);
            if (v.size() != 5) {
                throw std::runtime_error("a rectangle is not x y width height weight");
            }
            rects.push_back({static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]),
                             static_cast<int>(v[3]), v[4]});
        }
        if (rects.empty() || rects.size() > 3) {
            throw std::runtime_error("a feature has no rectangle or more than three");
        }
        c.features.push_back(rects);
    }
    for (int index : c.featureOf) {
        if (index < 0 || index >= static_cast<int>(c.features.size())) {
            throw std::runtime_error("a weak classifier names a feature that does not exist");
        }
    }
    if (c.stageLengths.empty() || c.width <= 0 || c.height <= 0) {
        throw std::runtime_error("no stages or no window size");
    }
    return c;
}

// ---- output ------------------------------------------------------------------------

std::string Float(double v)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.9gf", static_cast<double>(static_cast<float>(v)));
    std::string s = text;
    if (s.find_first_of(".e") == std::string::npos) {
        s.insert(s.size() - 1, ".0");
    }
    return s;
}

template <typename T, typename Format>
void WriteArray(std::ostream& out, const char* type, const char* name, const std::vector<T>& values, Format format)
{
    out << "const " << type << " " << name << "[] = {";
    for (size_t i = 0; i < values.size(); ++i) {
        out << (i % 8 == 0 ? "\n    " : " ") << format(values[i]) << ",";
    }
    out << "\n};\n\n";
}

void WriteTables(std::ostream& out, const Cascade& c, const std::string& source, std::string notice)
{
    for (size_t at; (at = notice.find("*/")) != std::string::npos;) {
        notice.replace(at, 2, "* /");
    }
    out << "// Generated by kvcascade from " << source << "; do not edit.\n"
        << "// The cascade's own notice follows, as it came with it.\n/*" << notice << "*/\n"
        << "#include \"imaging/cascade.h\"\n\nnamespace {\n\n";
    std::vector<long> rectCounts;
    std::vector<std::string> rects;
    std::vector<double> weights;
    for (int index : c.featureOf) {
        rectCounts.push_back(static_cast<long>(c.features[index].size()));
        for (const Rect& r : c.features[index]) {
            rects.push_back("{" + std::to_string(r.x) + ", " + std::to_string(r.y) + ", " + std::to_string(r.w) +
                            ", " + std::to_string(r.h) + "}");
            weights.push_back(r.weight);
        }
    }
    std::vector<long> lengths(c.stageLengths.begin(), c.stageLengths.end());
    auto plain = [](auto v) { return std::to_string(v); };
    WriteArray(out, "LONG", "kStageLengths", lengths, plain);
    WriteArray(out, "float", "kStageThresholds", c.stageThresholds, Float);
    WriteArray(out, "LONG", "kRectCounts", rectCounts, plain);
    WriteArray(out, "kv::ImageRect", "kRects", rects, [](const std::string& s) { return s; });
    WriteArray(out, "float", "kWeights", weights, Float);
    WriteArray(out, "float", "kThresholds", c.thresholds, Float);
    WriteArray(out, "float", "kLeaves", c.leaves, Float);
    out << "}  // namespace\n\nnamespace kv {\n\nextern const CascadeTable g_FrontalFaceCascade = {\n"
        << "    {" << c.width << ", " << c.height << "},\n"
        << "    " << c.stageLengths.size() << ", kStageLengths, kStageThresholds,\n"
        << "    " << c.featureOf.size() << ", kRectCounts, kRects, kWeights, kThresholds, kLeaves,\n"
        << "};\n\n}  // namespace kv\n";
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        std::cout << "usage: kvcascade INPUT.xml OUTPUT.cpp\n";
        return 0;
    }
    if (argc != 3) {
        std::cerr << "usage: kvcascade INPUT.xml OUTPUT.cpp\n";
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    if (!in) {
        std::cerr << "kvcascade: cannot read " << argv[1] << "\n";
        return 1;
    }
    std::stringstream text;
    text << in.rdbuf();
    try {
        XmlReader reader(text.str());
        const Cascade cascade = ReadCascade(*reader.Parse());
        std::ostringstream out;
        std::string source = argv[1];
        source = source.substr(source.find_last_of('/') + 1);
        WriteTables(out, cascade, source, reader.FirstComment());
        std::ofstream file(argv[2], std::ios::binary);
        if (!(file << out.str()) || !file.flush()) {
            std::cerr << "kvcascade: cannot write " << argv[2] << "\n";
            return 1;
        }
    } catch (const std::exception& e) {
        std::cerr << "kvcascade: " << argv[1] << ": " << e.what() << "\n";
        return 1;
    }
    return 0;
}
