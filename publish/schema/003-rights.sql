-- What the role of tqpublish needs. Tables of later versions are taken in where the same role
-- makes them.
create function grant_writer(role name) returns void language plpgsql as $$
declare
  rights constant text := 'select, insert, update, delete on tables to %I';
begin
  execute format('grant usage on schema %I to %I', current_schema(), role);
  execute format('grant temporary on database %I to %I', current_database(), role);
  execute format('grant select, insert, update, delete on all tables in schema %I to %I',
                 current_schema(), role);
  execute format('alter default privileges in schema %I grant ' || rights, current_schema(), role);
end
$$;

-- What a role needs that only asks.
create function grant_reader(role name) returns void language plpgsql as $$
begin
  execute format('grant usage on schema %I to %I', current_schema(), role);
  execute format('grant select on all tables in schema %I to %I', current_schema(), role);
  execute format('alter default privileges in schema %I grant select on tables to %I',
                 current_schema(), role);
end
$$;
