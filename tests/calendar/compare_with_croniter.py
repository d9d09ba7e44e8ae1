#!/usr/bin/python3
"""Compares the next launches of random expressions with those of croniter, in 20 zones.

compare_with_croniter.py PROGRAM COUNT [SEED]

The interpreter is Debian's, which has Debian's croniter and finds the system's zones by itself. Half of the times are
near a change of the clock.

What croniter does otherwise than cron, and how it is compared all the same; no pair is left out:
- Changes of the clock. croniter follows none of cron's rules: 30 2 * * * is half an hour late where 02:30 is skipped,
  and an hour late on the day after a repeated hour, of which 30 * * * * gets only the first. So it is asked by the wall
  clock, without a zone. If no change is near, its answer is the launch. Otherwise launch_at_change() maps all that it
  finds around the change to times, as cron(8) says.
- Day of the month and day of the week. croniter takes a field that has all values for one that says nothing; cron, each
  that begins with *. Where either day suffices, it finds no launch if the month has no such day, although the day of the
  week comes. It is asked for each of the two by itself, and where both are needed, for the days of the month, which the
  day of the week then sifts.
- A list of days with the 29th to 31st or L. After a month that has no such day it may pass by the next day of the list:
  1,31 on 27 February is 31 March. It is asked for each of these days by itself. 30 days and L are 31 items, which it
  takes for all days: each item is expanded by itself.
- A list with *, as 5,* or *,5, is asked as what it is: all values.
"""
import bisect
import heapq
import random
import subprocess
import sys
from datetime import datetime, timedelta
from zoneinfo import ZoneInfo

from croniter import croniter, CroniterBadDateError

ZONES = ("UTC Europe/Berlin Europe/Dublin America/New_York America/St_Johns America/Sao_Paulo America/Havana "
         "America/Caracas America/Nuuk Africa/Casablanca Asia/Gaza Asia/Beirut Asia/Tehran Asia/Kolkata Asia/Kathmandu "
         "Australia/Adelaide Australia/Lord_Howe Pacific/Chatham Pacific/Apia Antarctica/Troll").split()
BEGIN, END = 946684800, 2145916800  # 2000 to 2038
FARTHEST = END + 51 * 366 * 86400  # croniter looks for 50 years
CORRECTION = timedelta(hours=3)  # a change by as much moves no launch
NEAR = 4 * 3600
FIELDS = ((0, 59, ""), (0, 23, ""), (1, 31, ""), (1, 12, "jan feb mar apr may jun jul aug sep oct nov dec"),
          (0, 7, "sun mon tue wed thu fri sat"))


class Zone:
    def __init__(self, name):
        self.name = name
        self.info = ZoneInfo(name)
        self.changes = []
        step = 86400
        offset = self.offset(BEGIN)
        for time in range(BEGIN, FARTHEST, step):
            before, offset = offset, self.offset(time + step)
            if offset != before:
                low, high = time, time + step
                while high - low > 1:
                    middle = (low + high) // 2
                    low, high = (middle, high) if self.offset(middle) == self.offset(low) else (low, middle)
                self.changes.append(high)

    def offset(self, time):
        return datetime.fromtimestamp(time, self.info).utcoffset()

    def wall(self, time):
        return datetime.fromtimestamp(time, self.info).replace(tzinfo=None)

    def has_change(self, begin, end):
        place = bisect.bisect_left(self.changes, begin)
        return place < len(self.changes) and self.changes[place] <= end

    def launches(self, wall, is_fixed):
        """The times at which what is due at that wall time is launched."""
        times = []
        for fold in (0, 1):
            time = int(wall.replace(tzinfo=self.info, fold=fold).timestamp())
            times.append(time)
        first, second = times
        if first == second:
            return [first]
        if self.wall(first) == wall:  # shown twice
            is_correction = timedelta(seconds=second - first) >= CORRECTION
            return [first, second] if not is_fixed or is_correction else [first]
        is_correction = timedelta(seconds=first - second) >= CORRECTION  # skipped
        change = self.changes[bisect.bisect_right(self.changes, second)]
        return [change] if is_fixed and not is_correction else []


def random_value(field, values):
    low, high, names = FIELDS[field]
    value = values.randint(low, high)
    if names and values.random() < 0.3:
        return values.choice(names.split())
    return "%0*d" % (values.choice((1, 1, 2)), value)


def random_item(field, values):
    low, high, names = FIELDS[field]
    kind = values.random()
    if field == 2 and kind < 0.08:
        return values.choice("Ll")
    if kind < 0.6:
        return random_value(field, values)
    first = values.randint(low, high)
    last = values.randint(first, high)
    item = "%d-%d" % (first, last)
    if names and kind > 0.8:
        words = names.split()
        first, last = sorted((values.randrange(len(words)), values.randrange(len(words))))
        item = "%s-%s" % (words[first], words[last])
    return item + ("/%d" % values.randint(1, high) if values.random() < 0.3 else "")


def random_field(field, values):
    kind = values.random()
    if kind < (0.25, 0.3, 0.5, 0.6, 0.5)[field]:
        return "*"
    if kind < (0.45, 0.45, 0.56, 0.65, 0.56)[field]:
        return "*/%d" % values.randint(1, FIELDS[field][1])
    if kind < 0.8:
        return random_value(field, values)
    items = [random_item(field, values) for _ in range(values.choice((1, 1, 2, 3)))]
    if values.random() < 0.03:
        items.insert(values.randint(0, len(items)), "*")
    return ",".join(items)


def asked(expression):
    """Expressions whose launches together are those of this one, each with one field of the day at most, and the days of
    the week that are needed besides; None for any."""
    fields = ["*" if "*" in field.split(",") else field for field in expression.split()]
    listed = {day for item in fields[2].split(",") for day in croniter.expand("0 0 %s * *" % item)[0][2]}
    in_all_months = sorted(day for day in listed if day not in ("*", "l") and day <= 28)
    days = ([",".join(map(str, in_all_months))] if in_all_months else []) + [str(day) for day in listed
                                                                            if day not in in_all_months]
    by_day = [" ".join((fields[0], fields[1], day, fields[3], "*")) for day in days]
    by_weekday = " ".join((fields[0], fields[1], "*", fields[3], fields[4]))
    if not any(expression.split()[index].startswith("*") for index in (2, 4)):
        return by_day + [by_weekday], None
    if fields[4] == "*":
        return by_day, None
    if fields[2] == "*":
        return [by_weekday], None
    needed = croniter.expand(by_weekday)[0][4]
    return by_day, None if needed == ["*"] else {weekday % 7 for weekday in needed}


def all_matches(text, begin):
    source = croniter(text, begin)
    try:
        while True:
            yield source.get_next(datetime)
    except CroniterBadDateError:
        return


def matches(expression, begin):
    """The wall times after `begin` that croniter finds, in order."""
    texts, weekdays = asked(expression)
    if weekdays is None:
        yield from heapq.merge(*(all_matches(text, begin) for text in texts))
        return
    # By the day, since most minutes are of days that are sifted out.
    minute, hour = expression.split()[:2]
    midnight = begin.replace(hour=0, minute=0, second=0, microsecond=0)
    in_days = ["0 0 " + text.split(" ", 2)[2] for text in texts]
    for day in heapq.merge(*(all_matches(text, midnight - timedelta(minutes=1)) for text in in_days)):
        if day - begin > timedelta(days=50 * 366):
            return
        if day.isoweekday() % 7 in weekdays:
            for wall in all_matches("%s %s * * *" % (minute, hour), max(begin, day - timedelta(minutes=1))):
                if wall.date() != day.date():
                    break
                yield wall


def launch_at_change(zone, after, expression):
    """The first launch after that time, of all that croniter finds from four hours before it on."""
    fields = expression.split()
    is_fixed = not fields[0].startswith("*") and not fields[1].startswith("*")
    begin = zone.wall(after) - timedelta(seconds=NEAR)
    best = None
    for wall in matches(expression, begin):
        later = [time for time in zone.launches(wall, is_fixed) if time > after]
        if later and (best is None or min(later) < best):
            best = min(later)
        if best is not None and int(wall.replace(tzinfo=zone.info).timestamp()) > best + NEAR:
            break
    return best


def expected(zone, after, expression):
    """The launch, "never", or "none" if the clock skips each; and whether a change of the clock is near."""
    begin = zone.wall(after)
    wall = next(matches(expression, begin), None)
    if wall is None:
        return "never", False
    launch = int(wall.replace(tzinfo=zone.info).timestamp())
    if zone.has_change(after - NEAR, after + NEAR) or zone.has_change(launch - NEAR, launch + NEAR):
        return launch_at_change(zone, after, expression) or "none", True
    if zone.has_change(after, launch):
        # What a change of the clock skips may come before what its wall clock shows.
        at_change = launch_at_change(zone, after, expression) or "none"
        return at_change, at_change != launch
    return launch, False


def main():
    program, count = sys.argv[1], int(sys.argv[2])
    seed = int(sys.argv[3]) if len(sys.argv) > 3 else random.SystemRandom().randrange(1 << 32)
    print("seed %d" % seed)
    values = random.Random(seed)
    zones = [Zone(name) for name in ZONES]
    questions = []
    for _ in range(count):
        zone = values.choice(zones)
        time = values.randrange(BEGIN, END)
        if zone.changes and values.random() < 0.5:
            last = bisect.bisect_left(zone.changes, END)
            time = min(zone.changes[values.randrange(last)] + values.randint(-2 * 86400, 2 * 3600), END)
        questions.append((zone, time, " ".join(random_field(field, values) for field in range(5))))
    text = "".join("%s\t%d\t%s\n" % (zone.name, time, expression) for zone, time, expression in questions)
    answers = subprocess.run([program], input=text, text=True, stdout=subprocess.PIPE, check=True).stdout.splitlines()
    assert len(answers) == count, "%d answers" % len(answers)

    at_change = never = differences = 0
    for (zone, time, expression), answer in zip(questions, answers):
        wanted, is_at_change = expected(zone, time, expression)
        at_change += is_at_change
        never += wanted == "never"
        is_same = "never comes" in answer if wanted == "never" else answer == str(wanted)
        if not is_same:
            differences += 1
            if differences <= 20:
                print("%s after %d (%s): %s\n    expected %s, the answer is %s" % (
                    zone.name, time, zone.wall(time), expression, wanted, answer), file=sys.stderr)
                for label, moment in (("expected", wanted), ("answer", answer)):
                    if str(moment).isdigit():
                        print("    %s: %s" % (label, datetime.fromtimestamp(int(moment), zone.info)), file=sys.stderr)
    print("%d pairs compared, %d of them at a change of the clock, %d that never come; %d differ" % (
        count, at_change, never, differences))
    return 1 if differences or at_change < count // 20 else 0


if __name__ == "__main__":
    sys.exit(main())
