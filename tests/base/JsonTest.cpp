#include "base/Json.h"

#include <gtest/gtest.h>

using namespace zuv;

namespace {

struct Inner {
    QString id;
    std::optional<double> size;
    static Inner fromJson(const QJsonObject &o)
    {
        return {json::required<QString>(o, "id"), json::optional<double>(o, "size")};
    }
    bool operator==(const Inner &) const = default;
};

struct Outer {
    std::vector<Inner> items;
    Lenient<Inner> extra;
    static Outer fromJson(const QJsonObject &o)
    {
        return {json::required<std::vector<Inner>>(o, "items"), json::lenient<Inner>(o, "extra")};
    }
};

QString failure(const QByteArray &body)
{
    try {
        json::decodeBody<Outer>(body);
    } catch (const DecodingError &e) {
        return e.localizedDescription();
    }
    return {};
}

} // namespace

TEST(Json, requiredOptionalAndLenientFields)
{
    const auto ok = json::decodeBody<Outer>(R"({"items":[{"id":"a","size":null},{"id":"b","size":3,"more":1}],
                                               "extra":{"id":7}})");
    ASSERT_EQ(ok.items.size(), 2u);
    EXPECT_FALSE(ok.items[0].size);
    EXPECT_EQ(ok.items[1].size, 3);
    EXPECT_FALSE(ok.extra.value) << "a malformed lenient field is none, not a failure";

    EXPECT_EQ(json::decodeBody<Outer>(R"({"items":[],"extra":{"id":"x"}})").extra.value->id, "x");

    // Errors name where they happened.
    EXPECT_EQ(failure(R"({"items":[{"id":"a"},{"size":1}]})"), "At items[1]: The key \"id\" is missing.");
    EXPECT_EQ(failure(R"({"items":[{"id":"a","size":"big"}]})"), "At items[0].size: Expected a number but found a string.");
    EXPECT_EQ(failure(R"({"items":null})"), "At items: Expected a list but found null.");
    EXPECT_TRUE(failure(R"({"items":[)").startsWith("The data couldn't be read"));
}

TEST(Json, topLevelValuesIntegersAndEncoding)
{
    EXPECT_FALSE(json::decodeBody<std::optional<Inner>>("null"));
    EXPECT_EQ(json::decodeBody<std::optional<Inner>>(R"({"id":"q"})")->id, "q");
    EXPECT_EQ(json::decodeBody<QString>(R"("text")"), "text");
    EXPECT_THROW(json::decodeBody<QString>(""), DecodingError);
    EXPECT_THROW(json::decodeBody<QString>("\"a\" \"b\""), DecodingError);

    EXPECT_EQ(json::decode<qint64>(QJsonValue(42.0)), 42);
    EXPECT_THROW(json::decode<qint64>(QJsonValue(1.5)), DecodingError);
    EXPECT_THROW(json::decode<bool>(QJsonValue(1)), DecodingError);

    EXPECT_EQ(json::encode(QJsonValue(QJsonObject{{"a", 1}})), R"({"a":1})");
    EXPECT_EQ(json::encode(QJsonValue("x")), R"("x")");
    EXPECT_EQ(json::encode(QJsonValue(QJsonValue::Null)), "null");
}
