#include "settings/MemoryNote.h"
#include "settings/ScheduleEditor.h"
#include "settings/Schedule.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <QTimeZone>

#include <QJsonDocument>

using namespace zuv;

namespace {

ScheduleSpec spec(const char *json) { return ScheduleSpec::fromJson(QJsonDocument::fromJson(json).object()); }

const QLocale english(QLocale::English, QLocale::UnitedStates);

Overview::Schedule schedule(const char *json) { return Overview::Schedule::fromJson(QJsonDocument::fromJson(json).object()); }

const QDateTime now(QDate(2026, 11, 21), QTime(15, 4), Qt::LocalTime);

} // namespace

TEST(ScheduleSpec, summaries)
{
    EXPECT_EQ(spec(R"({"kind":"daily","time":"08:00"})").summary(english), "Every day at 08:00");
    EXPECT_EQ(spec(R"({"kind":"daily"})").summary(english), "Every day at ");
    EXPECT_EQ(spec(R"({"kind":"weekly","time":"09:30","days":[5,3,1,4,2,2]})").summary(english), "Weekdays at 09:30");
    EXPECT_EQ(spec(R"({"kind":"weekly","time":"09:30","days":[6,0]})").summary(english), "Sun, Sat at 09:30");
    EXPECT_EQ(spec(R"({"kind":"weekly","time":"07:00","days":[7]})").summary(english), " at 07:00");
    EXPECT_EQ(spec(R"({"kind":"weekly","time":"07:00"})").summary(english), " at 07:00");
    EXPECT_EQ(spec(R"({"kind":"interval","minutes":90})").summary(english), "Every 90 minutes");
    EXPECT_EQ(spec(R"({"kind":"interval","minutes":120})").summary(english), "Every 2 hours");
    EXPECT_EQ(spec(R"({"kind":"interval","minutes":60})").summary(english), "Every hour");
    EXPECT_EQ(spec(R"({"kind":"interval"})").summary(english), "Every 0 hours");
    EXPECT_EQ(spec(R"({"kind":"once"})").summary(english), "Once");
    EXPECT_EQ(spec(R"({"kind":"once","at":"soon"})").summary(english), "Once");
    EXPECT_TRUE(spec(R"({"kind":"once","at":"2026-12-24T18:30:00.250Z"})").summary(english).startsWith("Once, Dec 24"));
    EXPECT_EQ(spec(R"({"kind":"lunar"})").summary(english), "lunar");
}

TEST(ScheduleEdit, targetIsSetKeptOrClearedOnTheWire)
{
    ScheduleEdit edit;
    edit.prompt = "p";
    EXPECT_FALSE(edit.toJson().contains("target"));
    edit.target.kind = ScheduleEdit::TargetChange::Kind::clear;
    EXPECT_TRUE(edit.toJson().value("target").isNull());
    EXPECT_TRUE(edit.toJson().contains("target"));
    edit.target = {ScheduleEdit::TargetChange::Kind::set, {"cc", "/src", "codex", "", std::nullopt, "m1"}};
    EXPECT_EQ(edit.toJson().value("target").toObject(),
              (QJsonObject{{"kind", "cc"}, {"cwd", "/src"}, {"agent", "codex"}, {"model", ""}, {"device", "m1"}}));
    EXPECT_FALSE(edit.toJson().contains("enabled"));
}

TEST(ScheduleEditor, defaultsAndTheSpecItBuilds)
{
    ScheduleEditor editor(now);
    EXPECT_EQ(editor.title(), "New Schedule");
    EXPECT_EQ(editor.date, QDateTime(now.date(), QTime(8, 0), Qt::LocalTime));
    EXPECT_FALSE(editor.canSave()) << "no prompt";
    editor.prompt = "  \n ";
    EXPECT_FALSE(editor.canSave());
    editor.prompt = "  Do it \n";
    EXPECT_TRUE(editor.canSave());
    EXPECT_EQ(editor.spec(), spec(R"({"kind":"daily","time":"08:00"})"));
    EXPECT_EQ(editor.edit().prompt, "Do it");
    EXPECT_EQ(editor.edit().target.kind, ScheduleEdit::TargetChange::Kind::keep);

    editor.kind = "weekly";
    editor.days = {5, 1};
    EXPECT_EQ(editor.spec(), spec(R"({"kind":"weekly","time":"08:00","days":[1,5]})"));
    editor.days.clear();
    EXPECT_FALSE(editor.canSave()) << "a week with no days";
    editor.kind = "interval";
    editor.minutes = 30;
    EXPECT_EQ(editor.spec(), spec(R"({"kind":"interval","minutes":30})"));
    editor.kind = "once";
    EXPECT_EQ(editor.spec().kind, "once");
    EXPECT_EQ(QDateTime::fromString(*editor.spec().at, Qt::ISODate), editor.date);
    EXPECT_FALSE(editor.spec().time);

    editor.agentSession = true;
    EXPECT_FALSE(editor.canSave()) << "an agent session needs a folder";
    EXPECT_EQ(editor.promptPlaceholder(), "What should Claude do?");
    editor.cwd = "/work";
    EXPECT_TRUE(editor.canSave());
    EXPECT_EQ(editor.targetChange().kind, ScheduleEdit::TargetChange::Kind::set);
    EXPECT_FALSE(editor.targetChange().target.effort) << "an empty effort is absent";

    EXPECT_EQ(ScheduleEditor::intervalLabel(15), "15 minutes");
    EXPECT_EQ(ScheduleEditor::intervalLabel(60), "1 hour");
    EXPECT_EQ(ScheduleEditor::intervalLabel(360), "6 hours");
}

TEST(ScheduleEditor, fillsFromASchedule)
{
    const auto agentSchedule = schedule(R"({"id":"s1","when":"x","prompt":"Run tests","deliver":"telegram",
        "enabled":true,"spec":{"kind":"weekly","time":"16:45","days":[5]},
        "target":{"kind":"cc","cwd":"/p","agent":"codex","model":"gpt-x","device":"m2"}})");
    ScheduleEditor editor(now, agentSchedule);
    EXPECT_EQ(editor.title(), "Edit Schedule");
    EXPECT_TRUE(editor.agentSession);
    EXPECT_EQ(editor.agent, "codex");
    EXPECT_EQ(editor.effort, "");
    EXPECT_EQ(editor.device, "m2");
    EXPECT_EQ(editor.date.time(), QTime(16, 45));
    EXPECT_EQ(editor.days, (std::set<int>{5}));
    EXPECT_EQ(editor.deliver, "telegram");
    EXPECT_EQ(agentSchedule.agentName(), "Codex");
    EXPECT_EQ(agentSchedule.destination(), "To Telegram");

    // Back to a plain schedule: the target is cleared with an explicit null.
    editor.agentSession = false;
    EXPECT_TRUE(editor.edit().toJson().value("target").isNull());

    // A plain schedule edited sends no target at all.
    ScheduleEditor plain(now, schedule(R"({"id":"s2","when":"x","prompt":"p","deliver":"app","enabled":false,
        "spec":{"kind":"daily","time":"7:5:0"}})"));
    EXPECT_EQ(plain.date.time(), QTime(8, 0)) << "a time that is not two parts keeps the default";
    EXPECT_FALSE(plain.edit().toJson().contains("target"));

    const auto done = schedule(R"({"id":"s3","when":"x","prompt":"p","deliver":"app","enabled":true,
        "spec":{"kind":"once","at":"2026-01-01T10:00:00Z"}})");
    EXPECT_TRUE(done.done());
    EXPECT_EQ(ScheduleEditor(now, done).date, QDateTime::fromString("2026-01-01T10:00:00Z", Qt::ISODate));
}

TEST(ScheduleEditor, templatesFillKindTimeDaysAndPrompt)
{
    ScheduleEditor editor(now);
    const auto &review = ScheduleEditor::templates()[2];
    editor.apply(review);
    EXPECT_EQ(editor.kind, "weekly");
    EXPECT_EQ(editor.days, (std::set<int>{1}));
    EXPECT_EQ(editor.date.time(), QTime(9, 0));
    EXPECT_TRUE(editor.prompt.startsWith("Weekly review: use search_history"));
    EXPECT_EQ(ScheduleEditor::agentTemplates().size(), 3u);

    // A daily template after a weekly one: no days are left behind.
    editor.apply(ScheduleEditor::templates()[0]);
    EXPECT_EQ(editor.kind, "daily");
    EXPECT_TRUE(editor.days.empty());
    EXPECT_EQ(editor.spec().days, std::nullopt);
}

// On the night the clocks go forward, 02:00 to 03:00 does not exist in Berlin: a
// time in that gap becomes the first moment after it, a real and valid date.
TEST(ScheduleEditor, aTimeInTheClockChangeGapMovesForward)
{
    const QTimeZone berlin("Europe/Berlin");
    ASSERT_TRUE(berlin.isValid());
    const QDateTime springForward(QDate(2026, 3, 29), QTime(7, 0), berlin);
    ScheduleEditor editor(springForward);
    editor.apply(ScheduleEditor::agentTemplates()[1]); // "Nightly Tests", daily at 02:00
    ASSERT_TRUE(editor.date.isValid());
    EXPECT_EQ(editor.date, QDateTime(QDate(2026, 3, 29), QTime(3, 0), berlin));
    EXPECT_EQ(editor.spec().time, "03:00") << "what the time field shows is what is saved";

    Overview::Schedule existing;
    existing.spec = ScheduleSpec{};
    existing.spec->kind = "daily";
    existing.spec->time = "02:30";
    const ScheduleEditor opened(springForward, existing);
    ASSERT_TRUE(opened.date.isValid());
    EXPECT_EQ(opened.date, QDateTime(QDate(2026, 3, 29), QTime(3, 0), berlin));

    // On an ordinary day the time is kept as it is.
    ScheduleEditor ordinary(QDateTime(QDate(2026, 3, 30), QTime(7, 0), berlin));
    ordinary.apply(ScheduleEditor::agentTemplates()[1]);
    EXPECT_EQ(ordinary.date, QDateTime(QDate(2026, 3, 30), QTime(2, 0), berlin));
}

TEST(MemoryNote, kindsAndNarrowing)
{
    const std::vector<MemoryNote> notes{{"1", "Likes green Tea", 0, std::nullopt, std::nullopt, QStringLiteral("auto")},
                                        {"2", "Works at Kelmor", 0, QStringLiteral("work"), std::nullopt, std::nullopt}};
    EXPECT_EQ(notes[0].kindOrFact(), "fact");
    EXPECT_TRUE(notes[0].learned());
    EXPECT_EQ(MemoryNote::narrowed(notes, "tea").size(), 1u);
    EXPECT_EQ(MemoryNote::narrowed(notes, "").size(), 2u);
    EXPECT_TRUE(MemoryNote::narrowed(notes, "nothing").empty());

    auto editor = MemoryEditor::editing(notes[0]);
    EXPECT_EQ(editor.kind, "fact") << "a note with no kind edits as fact";
    EXPECT_EQ(MemoryEditor::editing(notes[1]).kind, "work");
    editor.text = " \n";
    EXPECT_FALSE(editor.canSave());

    Overview::MemorySettings settings;
    EXPECT_TRUE(settings.memoryOn()) << "a missing enabled counts as on";
}
