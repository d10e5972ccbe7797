-- SPDX-License-Identifier: MIT
--
-- What happens when rows arrive: the watermark is a fence, so that a batch that is sent twice, or by a second shipper,
-- is refused whole.
set local role fleet_owner;

-- The digest of many rows is the exclusive or of theirs, so that a batch can be extended. Against accidents: it is the
-- function that hash partitions of texts depend on, which a new version of PostgreSQL cannot change, and an eighth of
-- the cost of an MD5. The shipper computes it, too.
create function fleet.digest(text) returns bigint language sql immutable parallel safe as $$
    select hashtextextended($1, 0)
$$;
do $$
begin
    if fleet.digest('12 bytes and more') <> -6013155176126339714 then
        raise exception 'this server is big-endian, which the shipper''s digests do not support';
    end if;
end
$$;

-- The cells of a row that the device never changes, as its digest has them.
create function fleet.digest(r fleet.sample) returns bigint language sql stable parallel safe as $$
    select fleet.digest((r.id, r.dt, r.val, r.odd)::text)
$$;
create function fleet.digest(r fleet.alarm) returns bigint language sql stable parallel safe as $$
    select fleet.digest((r.id, r.dt, r.level, r.object, r.type, r.value, r."limit", r.description, r.odd)::text)
$$;
create function fleet.digest(r fleet.log) returns bigint language sql stable parallel safe as $$
    select fleet.digest((r.id, r.dt, r.user_name, r.log_name, r.message, r.odd)::text)
$$;

create function fleet.refuse(reason text) returns void language plpgsql as $$
begin
    raise exception using errcode = 'FL001', message = reason,
        hint = 'Read the watermark again; what is refused is in the archive already, or belongs to another generation.';
end
$$;

create function fleet.arrived() returns trigger
language plpgsql security definer set search_path = fleet, pg_temp set datestyle = 'ISO' as $$
declare
    mine constant integer := me();
    part record;
    at mark;
begin
    if mine is null then
        return null; -- the owner, who repairs
    end if;
    for part in execute format(
        'select tbl, gen, count(*)::integer as n, min(id) as first, max(id) as last, min(dt) as earliest,
                max(dt) as latest, bit_xor(digest((%s)::text)) as digest
         from fresh group by tbl, gen order by tbl, gen', tg_argv[0])
    loop
        select * into at from mark where device = mine and tbl = part.tbl for update;
        if not found or at.kind <> split_part(tg_table_name, '_', 1) or at.gen <> part.gen or part.first <= at.wm then
            perform refuse(format('table %s: a batch of generation %s from ID %s, the archive is at %s, %s', part.tbl,
                                  part.gen, part.first, at.gen, at.wm));
        end if;
        if part.last - at.wm <> part.n then
            insert into gap (device, tbl, gen, id_from, id_to)
            select mine, part.tbl, part.gen, hole.first, hole.last
            from (select lag(id, 1, at.wm) over (order by id) + 1 as first, id - 1 as last
                  from fresh where tbl = part.tbl and gen = part.gen) as hole
            where hole.first <= hole.last;
        end if;
        update batch
        set id_to = part.last, n = n + part.n, earliest = least(earliest, part.earliest),
            latest = greatest(latest, part.latest), received_to = now(), digest = digest # part.digest
        where device = mine and tbl = part.tbl and gen = part.gen and id_from = at.batch
            and n + part.n <= 5000 and received > now() - interval '10 minutes';
        if not found then
            insert into batch (device, tbl, gen, n, id_from, id_to, earliest, latest, digest)
            values (mine, part.tbl, part.gen, part.n, part.first, part.last, part.earliest, part.latest, part.digest);
            at.batch := part.first;
        end if;
        update mark set wm = part.last, batch = at.batch where device = mine and tbl = part.tbl;
    end loop;
    return null;
end
$$;

-- Which of these rows of the file the archive has only in a gap: it has passed them over.
create function fleet.passed_over(its_tbl smallint, its_gen smallint, ids bigint[]) returns table (id bigint)
language plpgsql stable security definer set search_path = fleet, pg_temp as $$
begin
    return query select asked.id from unnest(ids) asked (id)
        join lineage(me(), its_tbl, its_gen) l on asked.id > l.after and asked.id <= l.upto
        where asked.id <= (select id_to from gap where device = me() and tbl = its_tbl and gap.gen = l.gen
                               and id_from <= asked.id order by id_from desc limit 1);
end
$$;

-- What a device may do with a table of records, the parent or a partition: insert, seen by the trigger.
create function fleet.let_devices_insert(relation text, kind text) returns void
language plpgsql set search_path = fleet, pg_temp as $$
declare
    -- The cells that the device never changes, in the order of fleet.digest().
    fixed constant text := case kind
        when 'sample' then 'id, dt, val, odd'
        when 'alarm' then 'id, dt, level, object, type, value, "limit", description, odd'
        when 'log' then 'id, dt, user_name, log_name, message, odd' end;
begin
    execute format('create trigger arrived after insert on %I referencing new table as fresh
                    for each statement execute function arrived(%L)', relation, fixed);
    execute format('grant insert (tbl, gen, %s%s) on %I to fleet_device', fixed,
                   case kind when 'sample' then ', num' when 'alarm' then ', end_date, end_time, end_odd' else '' end,
                   relation);
end
$$;
select fleet.let_devices_insert(kind, kind) from unnest(array['sample', 'alarm', 'log']) kind;
select fleet.make_months();
