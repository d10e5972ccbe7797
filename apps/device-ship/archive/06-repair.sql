-- SPDX-License-Identifier: MIT
--
-- For the owner alone: rows that are not those of the file are put right.
set local role fleet_owner;

-- Whether the archive has the rows of a batch as they were sent. It costs as much as reading them.
create function fleet.is_as_sent(b fleet.batch, kind text) returns boolean
language plpgsql stable cost 1000 set search_path = fleet, pg_temp set datestyle = 'ISO' as $$
declare
    it_is boolean;
begin
    execute format('select (count(*), bit_xor(digest(s))) is not distinct from ($1.n::bigint, $1.digest) from %I s
                    where s.device = $1.device and s.tbl = $1.tbl and s.gen = $1.gen
                        and s.id between $1.id_from and $1.id_to', kind)
    into it_is using b;
    return it_is;
end
$$;

-- Takes the rows of a temporary table "repair", which has the columns that a device fills in. Their number.
create function fleet.repair(its_device integer, kind text) returns bigint
language plpgsql set search_path = fleet, pg_temp set datestyle = 'ISO' as $$
declare
    names text;
    cells text;
    intact batch[];
begin
    -- A batch that is under way would be taken for one that lacks rows.
    perform from mark where device = its_device and tbl in (select tbl from pg_temp.repair) order by tbl for update;
    -- A row is of the generation in whose part of the lineage it lies.
    update pg_temp.repair r set gen = (select l.gen from lineage(its_device, r.tbl, r.gen) l
                                       where r.id > l.after and r.id <= l.upto);
    with repaired as materialized (
        select distinct b from batch b join pg_temp.repair r
        on b.device = its_device and b.tbl = r.tbl and b.gen = r.gen and r.id between b.id_from and b.id_to
    )
    select array_agg(b) into intact from repaired where is_as_sent(b, kind);
    select string_agg(quote_ident(attname), ', ' order by attnum), string_agg(format('%1$I = r.%1$I', attname), ', ')
    into names, cells
    from pg_attribute where attrelid = 'pg_temp.repair'::regclass and attnum > 0;
    -- A row that exists is changed and not made anew: the file does not have all that the archive knows of it.
    if kind = 'alarm' then
        cells := cells || ', ended = case when (r.end_date, r.end_time) = ('''', '''') then null else s.ended end';
    end if;
    execute format('update %I s set %s from pg_temp.repair r
                    where s.device = $1 and s.tbl = r.tbl and s.gen = r.gen and s.id = r.id', kind, cells)
    using its_device;
    -- A row that does not is of the day of its batch, or received again where that month is gone. One without a batch
    -- was never sent.
    update batch b set received_to = now() from pg_temp.repair r
    where b.device = its_device and b.tbl = r.tbl and b.gen = r.gen and r.id between b.id_from and b.id_to
        and to_regclass('fleet.' || kind || to_char(b.received at time zone 'UTC', '_YYYY_MM')) is null;
    execute format('insert into %1$I (device, day, %2$s)
                    select $1, (case when to_regclass(%3$L || to_char(received at time zone ''UTC'', ''_YYYY_MM''))
                                    is null then received_to else received end at time zone ''UTC'')::date, %2$s
                    from pg_temp.repair r
                    join (select tbl, gen, id_from, id_to, received, received_to from batch where device = $1) b
                    using (tbl, gen)
                    where id between id_from and id_to and not exists (
                        select from %1$I s where s.device = $1 and s.tbl = r.tbl and s.gen = r.gen and s.id = r.id)',
                   kind, names, 'fleet.' || kind) using its_device;
    -- The digest of what was sent tells a row that was damaged from one of another life that was not noticed.
    if exists (select from unnest(intact) b where not is_as_sent(b, kind)) then
        raise exception 'the archive has these rows as they were sent, and the file has others';
    end if;
    return (select count(*) from pg_temp.repair);
end
$$;

-- Batches of which the archive does not have the rows any more that it was sent, though it still keeps their month.
create function fleet.damaged_batches(its_device integer) returns setof fleet.batch
language sql stable set search_path = fleet, pg_temp as $$
    select b.* from batch b join source s using (device, tbl)
    where b.device = its_device and (b.received at time zone 'UTC')::date >= kept_from(s.kind)
        and not is_as_sent(b, s.kind)
$$;
