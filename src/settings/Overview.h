#pragma once

#include "settings/MemoryNote.h"
#include "settings/ModelCatalog.h"
#include "settings/Schedule.h"

#include <QJsonObject>
#include <QString>

#include <optional>
#include <vector>

namespace zuv {

// How an agent tool stands on a computer. Any other word fails the decoding.
enum class ToolState { ready, signedOut, missing };

ToolState toolStateFromJson(const QJsonValue &value);
// What to tell the user about `tool` ("claude" or "codex") on the computer `mac`; none when ready.
std::optional<QString> toolNote(ToolState state, const QString &tool, const QString &mac);

// What the hub says about the account's agents, schedules and memory.
struct Overview {
    struct Agent {
        struct Tools {
            std::optional<ToolState> claude;
            std::optional<ToolState> codex;
            bool operator==(const Tools &) const = default;
        };
        bool online = false;
        std::optional<bool> gateway;
        std::optional<bool> enabled;
        std::optional<QString> state;
        std::optional<QString> id;
        std::optional<QString> name;
        std::optional<bool> codex;
        std::optional<Tools> agents;

        static Agent fromJson(const QJsonObject &object);
        bool operator==(const Agent &) const = default;
    };

    struct Status {
        Agent mac;
        Agent cloud;
        std::optional<bool> stuck;
        qint64 queued = 0;
        std::optional<ModelCatalog> models;
        std::optional<std::vector<Agent>> macs;

        static Status fromJson(const QJsonObject &object);
        bool operator==(const Status &) const = default;

        // A computer of the account: with no id the first of `macs`, else `mac`;
        // with an id only the one of `macs` that has it.
        std::optional<Agent> macWith(const std::optional<QString> &id) const;
    };

    struct Schedule {
        QString id;
        QString when; // the hub's own words, used when there is no spec
        std::optional<ScheduleSpec> spec;
        QString prompt;
        QString deliver; // "app", anything else is Telegram
        std::optional<double> nextAt;
        bool enabled = false;
        std::optional<CcTarget> target;

        static Schedule fromJson(const QJsonObject &object);
        bool operator==(const Schedule &) const = default;

        QString description(const QLocale &locale = QLocale()) const;
        QString destination() const; // "To Zuv app" or "To Telegram"
        // "Claude Code" or "Codex" for an agent schedule; empty otherwise.
        QString agentName() const;
        // A one-time schedule with no next run has run.
        bool done() const;
    };

    struct MemorySettings {
        struct Review {
            double at = 0;
            QString summary;
            bool operator==(const Review &) const = default;
        };
        bool review = false;
        std::optional<bool> enabled; // none counts as on
        std::optional<Review> lastReview;

        static MemorySettings fromJson(const QJsonObject &object);
        bool operator==(const MemorySettings &) const = default;
        bool memoryOn() const { return enabled.value_or(true); }
    };

    Status status;
    std::vector<Schedule> schedules;
    std::vector<MemoryNote> memory;
    std::optional<MemorySettings> memorySettings;

    static Overview fromJson(const QJsonObject &object);
    bool operator==(const Overview &) const = default;
};

// The signed-in user and what hangs on the account.
struct Me {
    struct User {
        QString id;
        std::optional<QString> email;
        std::optional<QString> name;
        bool operator==(const User &) const = default;
    };
    struct Telegram {
        std::optional<QString> username;
        bool linked = false;
        std::optional<QString> linkCode;
        std::optional<QString> link;
        std::optional<bool> builtIn;
        bool operator==(const Telegram &) const = default;
    };
    struct Mac {
        QString id;
        QString name;
        std::optional<bool> online;
        std::optional<bool> primary;
        std::optional<bool> builtIn;
        bool operator==(const Mac &) const = default;
    };

    User user;
    bool owner = false;
    std::optional<Telegram> telegram;
    std::optional<QString> model;
    std::optional<QString> effort;
    std::optional<QString> defaultModel;
    std::optional<std::vector<Mac>> macs;

    static Me fromJson(const QJsonObject &object);
    bool operator==(const Me &) const = default;
};

} // namespace zuv
