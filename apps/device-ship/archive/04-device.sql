-- SPDX-License-Identifier: MIT
--
-- All that a device may call. Each function is about the device of the session and takes no device's number.
set local role fleet_owner;

-- The version of the archive. The first call of a connection.
create function fleet.hello(its_zone text) returns integer
language plpgsql security definer set search_path = fleet, pg_temp as $$
begin
    -- "at time zone" would take "UTC+3", for three hours west, and any other word with a number. The names take long to
    -- list.
    if not exists (select from device where device = me() and zone = its_zone)
        and not exists (select from pg_timezone_names where name = its_zone and name not in ('localtime', 'posixrules'))
    then
        raise exception using errcode = '22023', message = format('time zone "%s" not recognized', its_zone),
            hint = 'The view pg_timezone_names has those that are, such as Europe/Berlin.';
    end if;
    update device set seen = now(), zone = its_zone where device = me();
    if not found then
        raise exception using errcode = 'FL002', message = format('%s is not a device of this archive', session_user),
            hint = 'device-ship add-device makes one.';
    end if;
    perform make_months();
    return (select max(version) from version);
end
$$;

-- What the names of the partitions end in that take rows now.
create function fleet.part() returns text
language plpgsql security definer set search_path = fleet, pg_temp as $$
begin
    perform make_months();
    return to_char(now() at time zone 'UTC', '_YYYY_MM');
end
$$;

create function fleet.state()
returns table (tbl smallint, file text, name text, kind text, gen smallint, wm bigint, after bigint)
language sql stable security definer set search_path = fleet, pg_temp as $$
    select s.tbl, s.file, s.name, s.kind, m.gen, m.wm, g.after
    from source s join mark m using (device, tbl) join generation g using (device, tbl, gen)
    where s.device = me() and not s.retired order by s.tbl
$$;

-- A new stream; its number.
create function fleet.enrol(its_file text, its_name text, its_kind text) returns smallint
language plpgsql security definer set search_path = fleet, pg_temp as $$
declare
    number integer;
begin
    perform from device where device = me() for update; -- one at a time
    select tbl into number from source where device = me() and file = its_file and name = its_name
        and kind = its_kind;
    if found then
        update source set retired = false where device = me() and tbl = number; -- it is back
        return number;
    end if;
    select coalesce(max(tbl), 0) + 1 into number from source where device = me();
    if number > 2000 then
        raise exception using errcode = 'FL003', message = 'a device has at most 2000 tables';
    end if;
    insert into source (device, tbl, file, name, kind) values (me(), number, its_file, its_name, its_kind);
    insert into generation (device, tbl, gen, after, reason) values (me(), number, 1, 0, 'the first');
    insert into mark (device, tbl, gen, kind, wm) values (me(), number, 1, its_kind, 0);
    return number;
end
$$;

create function fleet.describe(its_tbl smallint, its_title text, its_unit text, its_description text) returns void
language sql security definer set search_path = fleet, pg_temp as $$
    update source set title = its_title, unit = its_unit, description = its_description
    where device = me() and tbl = its_tbl and (title, unit, description) <> (its_title, its_unit, its_description)
$$;

-- Whose rows a generation consists of: those of its parent up to the ID at which it began, and so on. IDs above
-- "after" and up to "upto" are of "gen".
create function fleet.lineage(its_device integer, its_tbl smallint, its_gen smallint)
returns table (gen smallint, after bigint, upto bigint)
language sql stable security definer set search_path = fleet, pg_temp as $$
    with recursive line as (
        select g.gen, g.parent, g.after, 9223372036854775807 as upto
        from generation g where g.device = its_device and g.tbl = its_tbl and g.gen = its_gen
        union all
        select g.gen, g.parent, g.after, least(line.after, line.upto)
        from line join generation g on g.device = its_device and g.tbl = its_tbl and g.gen = line.parent
    )
    select gen, after, upto from line where after < upto
$$;

-- Whether the archive has refused the cells of a row: which row it is nobody can tell.
create function fleet.was_refused(odd json) returns boolean language sql immutable as $$
    select exists (select from json_each(odd) cell where cell.value ->> 'refused' not like 'larger than %')
$$;

-- Whether rows of the file are those of the archive: true, false, or NULL where the archive has none, or its cells not.
--
-- "offset 0", here and below, has each row looked up by its key. A join is planned by the statistics, which do not know a
-- new device: PostgreSQL expects one row of it, and reads all of them for each ID. It also overestimates the lineage,
-- and would compile the statement, which takes longer than to look up 2,000 rows.
create function fleet.judge(its_tbl smallint, its_gen smallint, ids bigint[], digests bigint[])
returns table (id bigint, same boolean)
language plpgsql stable security definer set search_path = fleet, pg_temp set datestyle = 'ISO' set jit = off as $$
begin
    return query execute format(
        'select asked.id, (select digest(r) = asked.digest or was_refused((r).odd) and null
                           from lineage($1, $2, $3) l cross join lateral (
                               select r from %I r
                               where r.device = $1 and r.tbl = $2 and r.gen = l.gen and r.id = asked.id offset 0) found
                           where asked.id > l.after and asked.id <= l.upto)
         from unnest($4, $5) asked (id, digest)',
        (select kind from source where device = me() and tbl = its_tbl))
    using me(), its_tbl, its_gen, ids, digests;
end
$$;

-- The number and the digest of a range of rows.
create function fleet.range_digest(its_tbl smallint, its_gen smallint, first bigint, last bigint,
                                   out n bigint, out digest bigint)
language plpgsql stable security definer set search_path = fleet, pg_temp set datestyle = 'ISO' as $$
begin
    execute format('select count(*), coalesce(bit_xor(digest(r)), 0) from lineage($1, $2, $3) l join %I r
                    on r.device = $1 and r.tbl = $2 and r.gen = l.gen and r.id > l.after and r.id <= l.upto
                    where r.id between $4 and $5',
                   (select kind from source where device = me() and tbl = its_tbl))
    into n, digest using me(), its_tbl, its_gen, first, last;
end
$$;

-- Rows up to this ID went with the oldest partitions. Of a batch that was received around midnight some may be there.
create function fleet.dropped_to(its_tbl smallint, its_gen smallint) returns bigint
language sql stable security definer set search_path = fleet, pg_temp as $$
    select coalesce(max(least(b.id_to, l.upto)), 0)
    from lineage(me(), its_tbl, its_gen) l
    join batch b on b.device = me() and b.tbl = its_tbl and b.gen = l.gen and b.id_from <= l.upto
    where (b.received at time zone 'UTC')::date
        < (select kept_from(kind) from source where device = me() and tbl = its_tbl)
$$;

-- The batch of a row that went so: what is left to judge it by.
create function fleet.dropped_batch(its_tbl smallint, its_gen smallint, its_id bigint)
returns table (id_from bigint, id_to bigint, n integer, digest bigint)
language sql stable security definer set search_path = fleet, pg_temp as $$
    select b.id_from, b.id_to, b.n, b.digest
    from lineage(me(), its_tbl, its_gen) l
    join batch b on b.device = me() and b.tbl = its_tbl and b.gen = l.gen and b.id_to <= l.upto
    where its_id between b.id_from and b.id_to and (b.received at time zone 'UTC')::date
        < (select kept_from(kind) from source where device = me() and tbl = its_tbl)
$$;

-- When a shipper looked at an alarm last, that was active then: as it reported, or as rows came after it.
create function fleet.last_look(a fleet.alarm) returns timestamptz
language sql stable set search_path = fleet, pg_temp as $$
    select greatest(m.reported, b.received_to)
    from mark m left join batch b on b.device = a.device and b.tbl = a.tbl and b.gen = a.gen
        and a.id between b.id_from and b.id_to
    where m.device = a.device and m.tbl = a.tbl
$$;

-- A digest of the cells that fleet.digest() leaves out: those that change, and what follows from others.
create function fleet.rest(r fleet.sample) returns bigint language sql stable parallel safe as $$
    select fleet.digest(r.id || ' ' || coalesce(encode(float8send(r.num), 'hex'), ''))
$$;
create function fleet.rest(r fleet.alarm) returns bigint language sql stable parallel safe as $$
    select fleet.digest((r.id, r.end_date, r.end_time, r.end_odd)::text)
$$;

-- The digest of the rests of a range of rows.
create function fleet.range_rest(its_tbl smallint, its_gen smallint, first bigint, last bigint, out digest bigint)
language plpgsql stable security definer set search_path = fleet, pg_temp set datestyle = 'ISO' as $$
begin
    execute format('select coalesce(bit_xor(rest(r)), 0) from lineage($1, $2, $3) l join %I r
                    on r.device = $1 and r.tbl = $2 and r.gen = l.gen and r.id > l.after and r.id <= l.upto
                    where r.id between $4 and $5',
                   (select kind from source where device = me() and tbl = its_tbl))
    into digest using me(), its_tbl, its_gen, first, last;
end
$$;

-- Which rows of the archive have another rest than the file has. An end that is only in the file is still to come.
create function fleet.judge_rest(its_tbl smallint, its_gen smallint, ids bigint[], digests bigint[])
returns table (id bigint)
language plpgsql stable security definer set search_path = fleet, pg_temp set datestyle = 'ISO' set jit = off as $$
declare
    its_kind constant text := (select kind from source where device = me() and tbl = its_tbl);
begin
    return query execute format(
        'select asked.id from unnest($4, $5) asked (id, digest)
         where not (select rest(r) = asked.digest or was_refused((r).odd) or %s
                    from lineage($1, $2, $3) l cross join lateral (
                        select r from %I r
                        where r.device = $1 and r.tbl = $2 and r.gen = l.gen and r.id = asked.id offset 0) found
                    where asked.id > l.after and asked.id <= l.upto)',
        case its_kind when 'alarm' then '(r).end_date = '''' and (r).end_time = ''''' else 'false' end, its_kind)
    using me(), its_tbl, its_gen, ids, digests;
end
$$;

-- Begins a generation that shares the rows up to "its_after" with "its_parent". Only where the archive still is at the
-- generation and the watermark by which that was decided: two shippers decide it once.
create function fleet.new_generation(its_tbl smallint, from_gen smallint, from_wm bigint, its_parent smallint,
                                     its_after bigint, its_reason text) returns smallint
language plpgsql security definer set search_path = fleet, pg_temp as $$
declare
    began integer;
begin
    update mark set gen = (select max(gen) + 1 from generation where device = me() and tbl = its_tbl), wm = its_after,
        batch = null
    where device = me() and tbl = its_tbl and gen = from_gen and wm = from_wm returning gen into began;
    if not found then
        perform refuse(format('table %s is not at generation %s, ID %s', its_tbl, from_gen, from_wm));
    end if;
    if its_after < 0 or its_after > 0 and not exists (
        select from generation where device = me() and tbl = its_tbl and gen = its_parent) then
        raise exception using errcode = 'FL003', message = 'a generation begins at 0 or shares rows with another';
    end if;
    insert into generation (device, tbl, gen, parent, after, reason)
    values (me(), its_tbl, began, case when its_after > 0 then its_parent end, its_after, its_reason);
    -- What is active in the former generation alone is in no file any more.
    update alarm set gone = now(), last_seen = last_look(alarm)
    where device = me() and tbl = its_tbl and end_date = '' and end_time = '' and gone is null
        and not exists (select from lineage(me(), its_tbl, began::smallint) l
                        where l.gen = alarm.gen and alarm.id > l.after and alarm.id <= l.upto);
    return began;
end
$$;

-- The rows after the watermark and up to "upto" are gone from the file, and none follows them yet.
create function fleet.skip(its_tbl smallint, from_gen smallint, from_wm bigint, upto bigint) returns void
language plpgsql security definer set search_path = fleet, pg_temp as $$
begin
    update mark set wm = upto
    where device = me() and tbl = its_tbl and gen = from_gen and wm = from_wm and wm < upto;
    if not found then
        perform refuse(format('table %s is not at generation %s, ID %s', its_tbl, from_gen, from_wm));
    end if;
    insert into gap (device, tbl, gen, id_from, id_to) values (me(), its_tbl, from_gen, from_wm + 1, upto);
end
$$;

-- Alarms that have not ended, as far as the archive knows.
create function fleet.open_alarms(its_tbl smallint, its_gen smallint) returns table (id bigint)
language sql stable security definer set search_path = fleet, pg_temp as $$
    select a.id from lineage(me(), its_tbl, its_gen) l
    join alarm a on a.device = me() and a.tbl = its_tbl and a.gen = l.gen and a.id > l.after and a.id <= l.upto
    where a.end_date = '' and a.end_time = '' and a.gone is null
$$;

-- The ends of alarms as the file has them now; the number of those that the archive did not have so. What is in the
-- file again is not gone. The lock on the mark keeps others from changing these alarms between the look and the update,
-- so that a row is still at its place.
create function fleet.end_alarms(its_tbl smallint, its_gen smallint, ids bigint[], dates text[], times text[],
                                 odds text[]) returns bigint
language plpgsql security definer set search_path = fleet, pg_temp
set enable_hashjoin = off set enable_mergejoin = off set jit = off as $$
declare
    changed bigint;
begin
    perform from mark where device = me() and tbl = its_tbl for update;
    with told as materialized (
        select l.gen, t.* from unnest(ids, dates, times, odds) t (id, end_date, end_time, end_odd)
        join lineage(me(), its_tbl, its_gen) l on t.id > l.after and t.id <= l.upto
    ), other as materialized (
        select a.*, told.end_date as to_date, told.end_time as to_time, told.end_odd as to_odd
        from told cross join lateral (
            select a.tableoid as part, a.ctid as place, a.gen, a.id, a.end_date, a.end_time, a.end_odd, a.gone
            from alarm a where a.device = me() and a.tbl = its_tbl and a.gen = told.gen and a.id = told.id offset 0) a
        where (a.end_date, a.end_time, a.end_odd::text) is distinct from (told.end_date, told.end_time, told.end_odd)
            or a.gone is not null
    ), kept as (
        insert into alarm_was (device, tbl, gen, id, end_date, end_time, end_odd)
        select me(), its_tbl, gen, id, end_date, end_time, end_odd from other
        where (end_date, end_time) is distinct from ('', '')
    ), done as (
        update alarm a set end_date = to_date, end_time = to_time, end_odd = to_odd::json, gone = null,
            last_seen = null, ended = case when (to_date, to_time) = ('', '') then null else now() end
        from other where a.tableoid = other.part and a.ctid = other.place
        returning 1
    )
    select count(*) into changed from done;
    return changed;
end
$$;

-- Alarms that were removed from the file while they were active. "seconds": since they were seen last; NULL if this
-- shipper has not seen them.
create function fleet.gone_alarms(its_tbl smallint, its_gen smallint, ids bigint[], seconds double precision)
returns bigint
language plpgsql security definer set search_path = fleet, pg_temp
set enable_hashjoin = off set enable_mergejoin = off set jit = off as $$
declare
    changed bigint;
begin
    perform from mark where device = me() and tbl = its_tbl for update;
    with told as materialized (
        select l.gen, t.id from unnest(ids) t (id)
        join lineage(me(), its_tbl, its_gen) l on t.id > l.after and t.id <= l.upto
    ), lost as materialized (
        select a.* from told cross join lateral (
            select a.tableoid as part, a.ctid as place, a.end_date, a.end_time, a.gone
            from alarm a where a.device = me() and a.tbl = its_tbl and a.gen = told.gen and a.id = told.id offset 0) a
        where a.end_date = '' and a.end_time = '' and a.gone is null
    ), done as (
        update alarm a set gone = now(), last_seen = coalesce(now() - make_interval(secs => seconds), last_look(a))
        from lost where a.tableoid = lost.part and a.ctid = lost.place
        returning 1
    )
    select count(*) into changed from done;
    return changed;
end
$$;

-- How far the files are that were read, for the lag, and what is wrong with the device or the shipper.
create function fleet.report(tbls smallint[], last_ids bigint[], its_trouble text) returns void
language sql security definer set search_path = fleet, pg_temp as $$
    -- Not negative: the view of the state subtracts from it.
    update mark m set last_id = greatest(t.last_id, 0), reported = now()
    from unnest(tbls, last_ids) t (tbl, last_id) where m.device = me() and m.tbl = t.tbl;
    update device set seen = now(), troubled = case when its_trouble = '' then troubled else now() end,
        trouble = left(its_trouble, 1000)
    where device = me();
$$;
