-- SPDX-License-Identifier: MIT
--
-- A stream is one table of one device's files. Its rows are known by device, table, generation and ID: a generation is
-- one life of the table, in which the device gives each ID once.
set local role fleet_owner;

create table fleet.version (
    version integer primary key,
    applied timestamptz not null default now()
);

-- The number of the device in whose session this runs; NULL in anybody else's. A device's role is named dev_NUMBER.
create function fleet.me() returns integer language sql stable as $$
    select case when session_user::text ~ '^dev_[0-9]+$' then substr(session_user::text, 5)::integer end
$$;

create table fleet.device (
    device integer primary key check (device >= 0),
    name text not null default '',
    zone text,                     -- of its clock, as PostgreSQL names it
    added timestamptz not null default now(),
    seen timestamptz,              -- when it last connected or reported
    trouble text not null default '',
    troubled timestamptz
);

create table fleet.source (
    device integer not null references fleet.device,
    tbl smallint not null,
    file text not null,            -- the name that the device's configuration gives the file
    name text not null,            -- of the table in it
    kind text not null check (kind in ('sample', 'alarm', 'log')),
    title text not null default '',
    unit text not null default '',
    description text not null default '',
    retired boolean not null default false, -- the file has it no more, as people said: nobody asks for it
    primary key (device, tbl),
    unique (device, file, name, kind)
);

create table fleet.generation (
    device integer not null,
    tbl smallint not null,
    gen smallint not null,
    parent smallint,               -- shares its rows up to the ID "after" with this one
    after bigint not null,
    reason text not null,
    began timestamptz not null default now(),
    primary key (device, tbl, gen)
);

-- What is shipped. Only fleet.arrived(), fleet.skip() and fleet.new_generation() move it.
create table fleet.mark (
    device integer not null,
    tbl smallint not null,
    gen smallint not null,
    kind text not null,
    wm bigint not null,            -- the highest ID in the archive
    batch bigint,                  -- where the last batch begins
    last_id bigint,                -- the highest that the device has given, when it reported last
    reported timestamptz,
    primary key (device, tbl)
) with (fillfactor = 50);

-- Rows in the order of recording, at most 5,000 and ten minutes: the index on time, the unit of verification, and when
-- the rows were received.
create table fleet.batch (
    device integer not null,
    tbl smallint not null,
    gen smallint not null,
    n integer not null,
    id_from bigint not null,
    id_to bigint not null,
    earliest timestamp,            -- by the device's clock
    latest timestamp,
    received timestamptz not null default now(),
    received_to timestamptz not null default now(),
    digest bigint not null,        -- of all rows: see fleet.digest()
    primary key (device, tbl, gen, id_from)
) with (fillfactor = 80);

-- Rows that were gone from the file before they were shipped.
create table fleet.gap (
    device integer not null,
    tbl smallint not null,
    gen smallint not null,
    id_from bigint not null,
    id_to bigint not null,
    noticed timestamptz not null default now(),
    primary key (device, tbl, gen, id_from)
);

-- The records. Partitions by the day on which the archive received a row, because only its own clock can be trusted.
-- A time that is not exactly in the store's form is NULL in "dt" and as it was in "odd", as is any cell that
-- PostgreSQL cannot hold: {"COLUMN": {"text" | "integer" | "real" | "bytes" | "blob" | "refused": ...}}. A time beyond
-- the years of four digits has no UTC near PostgreSQL's limits, and a question about any device would fail.
create table fleet.sample (
    id bigint not null,
    dt timestamp check (dt between '0001-01-01' and '9999-12-31 23:59:59.999'),
    num double precision,          -- the value, where it is a number
    device integer not null default substr(session_user::text, 5)::integer,
    day date not null default (now() at time zone 'UTC')::date,
    tbl smallint not null,
    gen smallint not null,
    val text,
    odd json
) partition by range (day);

create table fleet.alarm (
    id bigint not null,
    dt timestamp check (dt between '0001-01-01' and '9999-12-31 23:59:59.999'),
    level bigint,
    device integer not null default substr(session_user::text, 5)::integer,
    day date not null default (now() at time zone 'UTC')::date,
    tbl smallint not null,
    gen smallint not null,
    object text,
    type text,
    value text,
    "limit" text,
    description text,
    odd json,
    end_date text,
    end_time text,
    end_odd json,
    ended timestamptz,             -- when the archive learned of an end that came after the row
    gone timestamptz,              -- when it learned that the row was removed while the alarm was active
    last_seen timestamptz          -- active then
) partition by range (day);

create table fleet.log (
    id bigint not null,
    dt timestamp check (dt between '0001-01-01' and '9999-12-31 23:59:59.999'),
    device integer not null default substr(session_user::text, 5)::integer,
    day date not null default (now() at time zone 'UTC')::date,
    tbl smallint not null,
    gen smallint not null,
    user_name text,
    log_name text,
    message text,
    odd json
) partition by range (day);

-- Ends of alarms that were corrected later.
create table fleet.alarm_was (
    device integer not null,
    tbl smallint not null,
    gen smallint not null,
    id bigint not null,
    end_date text,
    end_time text,
    end_odd json,
    until timestamptz not null default now()
);

create index on fleet.sample using brin (dt) with (pages_per_range = 32);
create index on fleet.alarm (dt);
create index on fleet.log (dt);
create index on fleet.alarm (device, tbl) where end_date = '' and end_time = '' and gone is null;

-- The partitions of this month and the next two. A unique key on each and none on the parent, which would have to
-- contain the day: above 16 bytes an index of PostgreSQL stays half empty. That no row is in two of them follows from
-- fleet.arrived(). A partition for all other days would take the rows of a month whose own was not made.
--
-- A device copies into the partition itself: through the parent PostgreSQL stores row by row where a trigger sees all
-- rows of a statement, which is 1.4 times the log.
create function fleet.make_months() returns void
language plpgsql security definer set search_path = fleet, pg_temp as $$
declare
    first date;
    kind text;
    part text;
begin
    for first in
        select generate_series(date_trunc('month', now() at time zone 'UTC'),
                               date_trunc('month', now() at time zone 'UTC') + interval '2 months', interval '1 month')
    loop
        foreach kind in array array['sample', 'alarm', 'log'] loop
            part := format('%s_%s', kind, to_char(first, 'YYYY_MM'));
            continue when to_regclass('fleet.' || part) is not null;
            -- One at a time. Only this month is worth waiting for, because a device can keep the lock.
            if first <= now() at time zone 'UTC' then
                lock table version in share row exclusive mode;
            else
                begin
                    lock table version in share row exclusive mode nowait;
                exception when lock_not_available then
                    return;
                end;
            end if;
            continue when to_regclass('fleet.' || part) is not null;
            -- Attached, because "create table ... partition of" would wait for every batch that is under way.
            execute format('create table %I (like %I including defaults including constraints)', part, kind);
            execute format('create unique index %I on %I (device, tbl, gen, id)', part || '_key', part);
            perform let_devices_insert(part, kind);
            execute format('alter table %I attach partition %I for values from (%L) to (%L)', kind, part, first,
                           (first + interval '1 month')::date);
        end loop;
    end loop;
end
$$;

-- Retention drops the oldest partitions. Rows that were received before this day are not missing.
create function fleet.kept_from(kind text) returns date language sql stable set search_path = fleet, pg_temp as $$
    select min(substring(pg_get_expr(relpartbound, oid) from 'FROM \(''(.*?)''\)')::date)
    from pg_inherits join pg_class on oid = inhrelid where inhparent = kind::regclass
$$;
