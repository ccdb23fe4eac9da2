// The service's answers about packages, as tests need them: whole and right, to be broken in one place.

#ifndef TESTS_SUPPORT_PACKAGE_JSON_H
#define TESTS_SUPPORT_PACKAGE_JSON_H

#include <map>
#include <string>

// One package object; every value is JSON text, so a test can put any type in any place, or leave a member
// out.
struct PackageJson {
    std::string id = "\"7\"";
    std::map<std::string, std::string> attributes = {
        {"packageName", "\"qvclient_8.3_redhat_x64\""},
        {"packageFileName", "\"dunmarel_qvclient_8.3_redhat_x64.sja\""},
        {"packageItemFilePaths", "[\"/usr/ormex/var/global/repo/dunmarel_qvclient_8.3_redhat_x64.sja\"]"},
        {"packageType", "\"qvclient\""},
        {"os", "\"redhat_x64\""},
        {"version", "\"8.3\""},
        {"size", "1536"},
        {"createdDateTimeUTC", "\"2021-03-04T05:06:07.890Z\""},
        {"lastModifiedDateTimeUTC", "\"2022-03-04T05:06:07.890Z\""},
        {"lastValidatedUTC", "\"2023-03-04T05:06:07.890Z\""},
    };

    PackageJson with(const std::string& member, const std::string& value) const {
        PackageJson changed = *this;
        (member == "id" ? changed.id : changed.attributes[member]) = value;
        return changed;
    }
    PackageJson without(const std::string& member) const {
        PackageJson changed = *this;
        if (member == "id")
            changed.id.clear();
        changed.attributes.erase(member);
        return changed;
    }

    std::string object() const {
        std::string members;
        for (const auto& [name, value] : attributes)
            members += (members.empty() ? "\"" : ", \"") + name + "\": " + value;
        const std::string idMember = id.empty() ? "" : "\"id\": " + id + ", ";
        return "{\"type\": \"package\", " + idMember + "\"attributes\": {" + members + "}}";
    }
    std::string response() const { return "{\"data\": " + object() + "}"; }
    std::string list() const { return "{\"data\": [" + object() + "]}"; }
};

#endif
