-- SPDX-License-Identifier: MIT
--
-- Three roles without a login. What a device may call runs with the rights of fleet_owner, who is not a superuser
-- even where one sets up the archive.
do $$
begin
    if not exists (select from pg_roles where rolname = 'fleet_owner') then
        create role fleet_owner nologin;
    end if;
    if not exists (select from pg_roles where rolname = 'fleet_device') then
        create role fleet_device nologin;
    end if;
    if not exists (select from pg_roles where rolname = 'fleet_reader') then
        create role fleet_reader nologin;
    end if;
    if not pg_has_role('fleet_owner', 'member') then
        execute format('grant fleet_owner to %I', current_user);
    end if;
    execute format('grant create, temporary on database %I to fleet_owner', current_database());
    -- Else a device could fill the server's disk with tables of its own.
    execute format('revoke temporary on database %I from public', current_database());
    revoke create on schema public from public;
    -- So it could with large objects. Their functions belong to the superuser.
    if (select rolsuper from pg_roles where rolname = current_user) then
        revoke execute on function lo_create(oid), lo_creat(integer), lo_from_bytea(oid, bytea),
            lo_put(oid, bigint, bytea), lowrite(integer, bytea), lo_open(oid, integer), lo_truncate(integer, integer),
            lo_truncate64(integer, bigint) from public;
    end if;
end
$$;
set local role fleet_owner;
create schema fleet;
