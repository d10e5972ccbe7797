-- SPDX-License-Identifier: MIT
--
-- For the owner alone: rows that are not those of the file are put right.
set local role fleet_owner;

-- Takes the rows of a temporary table "repair", which has the columns that a device fills in. Their number.
create function fleet.repair(its_device integer, kind text) returns bigint
language plpgsql set search_path = fleet, pg_temp set datestyle = 'ISO' as $$
declare
    names text;
    cells text;
begin
    -- A batch that is under way would be counted without its rows.
    perform from mark where device = its_device and tbl in (select tbl from pg_temp.repair) order by tbl for update;
    -- A row is of the generation in whose part of the lineage it lies, and of the day of its batch.
    update pg_temp.repair r set gen = (select l.gen from lineage(its_device, r.tbl, r.gen) l
                                       where r.id > l.after and r.id <= l.upto);
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
    execute format('insert into %I (device, day, %s)
                    select $1, coalesce((select (b.received at time zone ''UTC'')::date from batch b
                                         where b.device = $1 and b.tbl = r.tbl and b.gen = r.gen
                                             and r.id between b.id_from and b.id_to),
                                        (now() at time zone ''UTC'')::date), %s
                    from pg_temp.repair r
                    where not exists (select from %I s where s.device = $1 and s.tbl = r.tbl and s.gen = r.gen
                                          and s.id = r.id)', kind, names, names, kind) using its_device;
    execute format('update batch b set (n, digest, earliest, latest) =
                        (select count(*), bit_xor(digest(s)), min(s.dt), max(s.dt) from %I s
                         where s.device = b.device and s.tbl = b.tbl and s.gen = b.gen
                             and s.id between b.id_from and b.id_to)
                    where b.device = $1 and exists (
                        select from pg_temp.repair r where b.tbl = r.tbl and b.gen = r.gen
                            and r.id between b.id_from and b.id_to)', kind) using its_device;
    return (select count(*) from pg_temp.repair);
end
$$;

-- Batches of which the archive does not have the rows any more that it was sent, though it still keeps their month.
create function fleet.damaged_batches(its_device integer) returns setof fleet.batch
language plpgsql stable set search_path = fleet, pg_temp set datestyle = 'ISO' as $$
declare
    its_kind text;
begin
    foreach its_kind in array array['sample', 'alarm', 'log'] loop
        return query execute format(
            'select b.* from batch b join source using (device, tbl) cross join lateral (
                 select count(*) as n, bit_xor(digest(s)) as digest from %I s
                 where s.device = b.device and s.tbl = b.tbl and s.gen = b.gen and s.id between b.id_from and b.id_to) r
             where b.device = $1 and kind = $2
                 and (b.received at time zone ''UTC'')::date >= (select kept_from($2))
                 and (r.n, r.digest) is distinct from (b.n::bigint, b.digest)', its_kind)
        using its_device, its_kind;
    end loop;
end
$$;
