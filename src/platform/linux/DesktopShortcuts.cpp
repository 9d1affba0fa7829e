#include "platform/linux/DesktopShortcuts.h"

#include <QFile>
#include <QTextStream>

// GLib names a field "signals", which Qt keeps as a keyword.
#undef signals
#include <gio/gio.h>
#define signals Q_SIGNALS

namespace zuv::DesktopShortcuts {

namespace {

void readSchema(GSettingsSchemaSource *source, const char *id, const char *path, QStringList *out)
{
    GSettingsSchema *schema = g_settings_schema_source_lookup(source, id, TRUE);
    if (!schema)
        return; // that part of the desktop is not installed
    GSettings *settings = path ? g_settings_new_full(schema, nullptr, path) : g_settings_new_full(schema, nullptr, nullptr);
    gchar **keys = g_settings_schema_list_keys(schema);
    for (gchar **key = keys; key && *key; ++key) {
        GVariant *value = g_settings_get_value(settings, *key);
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
            gsize count = 0;
            const gchar **items = g_variant_get_strv(value, &count);
            for (gsize i = 0; i < count; ++i)
                out->append(QString::fromUtf8(items[i]));
            g_free(items);
        } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
            // Single accelerators: custom bindings and the media keys of older versions.
            const QString text = QString::fromUtf8(g_variant_get_string(value, nullptr));
            if (text.startsWith(QLatin1Char('<')) || g_str_equal(*key, "binding"))
                out->append(text);
        }
        g_variant_unref(value);
    }
    // Custom bindings live at the paths this key lists.
    if (g_settings_schema_has_key(schema, "custom-keybindings")) {
        gchar **paths = g_settings_get_strv(settings, "custom-keybindings");
        for (gchar **p = paths; p && *p; ++p)
            readSchema(source, "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding", *p, out);
        g_strfreev(paths);
    }
    g_strfreev(keys);
    g_object_unref(settings);
    g_settings_schema_unref(schema);
}

} // namespace

QStringList gnome()
{
    QStringList out;
    GSettingsSchemaSource *source = g_settings_schema_source_get_default();
    if (!source)
        return out;
    for (const char *id : {"org.gnome.desktop.wm.keybindings", "org.gnome.shell.keybindings",
                           "org.gnome.mutter.keybindings", "org.gnome.mutter.wayland.keybindings",
                           "org.gnome.settings-daemon.plugins.media-keys"})
        readSchema(source, id, nullptr, &out);
    return out;
}

QStringList kde(const QString &configFolder)
{
    QStringList out;
    QFile file(configFolder + QStringLiteral("/kglobalshortcutsrc"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return out;
    QTextStream in(&file);
    while (!in.atEnd()) {
        // Action=current[\tcurrent2],default,Name; "none" when unset.
        const QString line = in.readLine();
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (line.startsWith(QLatin1Char('[')) || line.startsWith(QLatin1Char('#')) || equals < 0
            || line.startsWith(QLatin1String("_k_"))) // "_k_friendly_name" and the like name, not bind
            continue;
        const QString value = line.mid(equals + 1);
        const qsizetype comma = value.indexOf(QLatin1Char(','), 1); // a bare "," may be the key itself
        const QString current = comma < 0 ? value : value.left(comma);
        for (const QString &shortcut : current.split(QLatin1Char('\t'), Qt::SkipEmptyParts)) {
            if (shortcut != QLatin1String("none"))
                out.append(shortcut);
        }
    }
    return out;
}

} // namespace zuv::DesktopShortcuts
