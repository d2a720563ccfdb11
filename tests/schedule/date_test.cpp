// Dates read from the settings files are the moments Qt's own parser gives: in zones with daylight
// saving, around every change of their offset, and whatever was converted before.
#include "Decision.h"
#include "ZoneScope.h"

#include <QTimeZone>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <random>

namespace {
quint32 Parsed(const QString& text) {
    return ToTimeT(QDateTime::fromString(text, "yyyy-MM-dd hh:mm:ss"));
}

// Conversions that leave the C library's guess of daylight saving one way or the other.
void Unsettle(int way) {
    std::tm fields{};
    fields.tm_year = 124;
    fields.tm_mon = way % 2 ? 0 : 6;
    fields.tm_mday = 15;
    fields.tm_isdst = -1;
    std::mktime(&fields);
    QDateTime(QDate(2024, way % 2 ? 7 : 1, 15), QTime(12, 0)).toSecsSinceEpoch();
}

// The wall-clock texts around each change of the zone's offset in [from, to): every ten minutes
// from three hours before to three hours after, read with the offset before and the one after.
QStringList TextsAroundChanges(const QTimeZone& zone, int from, int to) {
    QStringList texts;
    const QDateTime begin(QDate(from, 1, 1), QTime(0, 0), Qt::UTC);
    const QDateTime end(QDate(to, 1, 1), QTime(0, 0), Qt::UTC);
    for (const QTimeZone::OffsetData& change : zone.transitions(begin, end)) {
        const qint64 at = change.atUtc.toSecsSinceEpoch();
        const int before = zone.offsetFromUtc(change.atUtc.addSecs(-1));
        for (const int offset : {before, change.offsetFromUtc})
            for (qint64 step = -3 * 3600; step <= 3 * 3600; step += 600)
                texts << QDateTime::fromSecsSinceEpoch(at + step + offset, Qt::UTC)
                             .toString("yyyy-MM-dd hh:mm:ss");
    }
    return texts;
}
} // namespace

TEST(Dates, ReadAsTheParserReadsThemInEveryZoneAndOrder) {
    const char* const zones[] = {
        "America/New_York", "Europe/Berlin",     "Australia/Lord_Howe", "Asia/Kolkata", "UTC",
        "Europe/Dublin",    "America/Sao_Paulo", "Antarctica/Troll"};
    std::mt19937_64 random(20241103);
    for (const char* name : zones) {
        ZoneScope scope(name);
        const QTimeZone zone(name);
        ASSERT_TRUE(zone.isValid()) << name << ": install tzdata";
        QStringList texts = TextsAroundChanges(zone, 2016, 2027);
        for (int i = 0; i < 1000; ++i) // and anywhere from 1971 to 2105
            texts << QDateTime::fromSecsSinceEpoch(31536000 + qint64(random() % 4100000000ULL),
                                                   Qt::UTC)
                         .toString("yyyy-MM-dd hh:mm:ss");
        int way = 0;
        for (const QString& text : texts) {
            Unsettle(++way);
            const quint32 readFirst = DateSeconds(text), parsedAfter = Parsed(text);
            Unsettle(++way);
            const quint32 parsedFirst = Parsed(text), readAfter = DateSeconds(text);
            ASSERT_EQ(readFirst, parsedAfter) << name << " \"" << text.toStdString() << "\"";
            ASSERT_EQ(readAfter, parsedFirst) << name << " \"" << text.toStdString() << "\"";
        }
    }
}

// The hour that repeats when clocks go back reads as its first occurrence (daylight time); an hour
// that is skipped when they go forward does not read at all (the parser gives no date-time), so
// such a last launch counts as unusable. Worked out from the zones' rules.
TEST(Dates, RepeatedAndSkippedHours) {
    struct Row {
        const char* zone;
        const char* text;
        qint64 utc; // seconds since the epoch
    };
    const Row rows[] = {
        // New York, 2024-11-03: 01:20 EDT (UTC-4) comes first, then 01:20 EST.
        {"America/New_York", "2024-11-03 01:20:00", 1730611200},
        // Berlin, 2024-10-27: 02:20 CEST (UTC+2) first.
        {"Europe/Berlin", "2024-10-27 02:20:00", 1729988400},
        // Lord Howe, 2024-04-07: 01:50 at +11 first, then at +10:30.
        {"Australia/Lord_Howe", "2024-04-07 01:50:00", 1712415000},
        // New York, 2024-03-10 and Berlin, 2024-03-31: 02:30 does not occur.
        {"America/New_York", "2024-03-10 02:30:00", 4294967295},
        {"Europe/Berlin", "2024-03-31 02:30:00", 4294967295},
    };
    for (const Row& row : rows) {
        ZoneScope scope(row.zone);
        EXPECT_EQ(qint64(DateSeconds(row.text)), row.utc) << row.zone << " " << row.text;
    }
}
