// query.cpp: what is in a key, as text or as JSON.

#include <cstdio>
#include <optional>

#include "commands.h"
#include "failure.h"
#include "json_writer.h"
#include "key.h"
#include "use_registry.h"

namespace kzreg {
namespace {

/// What is to be told of one key.
struct Excerpt {
    std::string path;
    std::vector<Value> values;
    std::vector<std::string> subkeys;
};

/// Tells of one key after another.
class Teller {
  public:
    virtual ~Teller() = default;
    virtual void tell(const Excerpt& key) = 0;
};

class TextTeller : public Teller {
  public:
    explicit TextTeller(bool listsSubkeys) : listsSubkeys_(listsSubkeys) {}

    void tell(const Excerpt& key) override {
        std::printf("%s%s\n", first_ ? "" : "\n", key.path.c_str());
        first_ = false;
        for (const Value& value : key.values) std::printf("    %s\n", shown(value).c_str());
        if (!listsSubkeys_ || key.subkeys.empty()) return;
        std::printf("\n");
        for (const std::string& name : key.subkeys) std::printf("%s\\%s\n", key.path.c_str(), name.c_str());
    }

  private:
    const bool listsSubkeys_;
    bool first_ = true;
};

class JsonTeller : public Teller {
  public:
    JsonTeller() {
        json_.beginObject();
        json_.name("keys");
        json_.beginArray();
    }
    void end() {
        json_.endArray();
        json_.endObject();
    }

    void tell(const Excerpt& key) override {
        json_.beginObject();
        json_.name("key");
        json_.text(key.path);
        json_.name("values");
        json_.beginArray();
        for (const Value& value : key.values) tellValue(value);
        json_.endArray();
        json_.name("subkeys");
        json_.beginArray();
        for (const std::string& name : key.subkeys) json_.text(name);
        json_.endArray();
        json_.endObject();
    }

  private:
    void tellValue(const Value& value) {
        json_.beginObject();
        json_.name("name");
        json_.text(value.name);
        json_.name("type");
        json_.text(typeWord(value.type));
        json_.name("data");
        if (value.type == REG_DWORD)
            json_.number(value.number());
        else if (value.type == REG_MULTI_SZ)
            tellTexts(value.texts());
        else
            json_.text(value.text);
        json_.endObject();
    }

    void tellTexts(const std::vector<std::string>& texts) {
        json_.beginArray();
        for (const std::string& text : texts) json_.text(text);
        json_.endArray();
    }

    JsonWriter json_;
};

/// Walks from a key, and counts what it tells of.
class Walk {
  public:
    Walk(const CommandLine& line, Teller& teller) : line_(line), teller_(teller) {}

    void from(const Key& key) {
        Excerpt excerpt{key.path(), {}, key.subkeys()};
        if (!line_.valueName)
            excerpt.values = key.values();
        else if (std::optional<Value> value = key.value(*line_.valueName))
            excerpt.values.push_back(std::move(*value));
        if (!line_.valueName || !excerpt.values.empty()) {
            teller_.tell(excerpt);
            ++told_;
        }
        if (!line_.subkeys) return;
        // A key may go while others are being told of: then there is nothing to tell.
        for (const std::string& name : excerpt.subkeys)
            if (const auto subkey = Key::openBelow(key, name)) from(*subkey);
    }

    size_t told() const { return told_; }

  private:
    const CommandLine& line_;
    Teller& teller_;
    size_t told_ = 0;
};

}  // namespace

int query(const CommandLine& line) {
    const KeyPath path = KeyPath::typed(line.operands.front());
    useRegistry();
    const Key key = Key::open(path);
    size_t told = 0;
    if (line.json) {
        JsonTeller teller;
        Walk walk(line, teller);
        walk.from(key);
        teller.end();
        told = walk.told();
    } else {
        TextTeller teller(/*listsSubkeys=*/!line.subkeys && !line.valueName);
        Walk walk(line, teller);
        walk.from(key);
        told = walk.told();
    }
    if (told > 0) return kDone;
    throw Failure(kFailed, "there is no value " + shownName(*line.valueName) + " in " + path.whole() +
                               (line.subkeys ? " or below" : "") + "; kzreg query '" + path.whole() +
                               "' lists what is there");
}

}  // namespace kzreg
