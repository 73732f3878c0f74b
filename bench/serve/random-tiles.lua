-- Requests tiles at random from a list of request paths (one a line, the file named after
-- wrk's "--"), and counts the answers that were not 2xx: wrk's own status count starts at 400,
-- and a redirect or an empty 204 would hide a broken route behind a good rate.
--
-- Every thread draws from its own fixed seed, so two servers see the same request sequence.

local threads = {}
local paths = {}

function setup(thread)
  thread:set("id", #threads + 1)
  table.insert(threads, thread)
end

function init(args)
  local file = assert(io.open(args[1], "r"))
  for line in file:lines() do
    if #line > 0 then
      paths[#paths + 1] = line
    end
  end
  file:close()
  assert(#paths > 0, "no paths in " .. args[1])
  math.randomseed(7919 * id)
  -- The order (wrk's second script argument):
  --   "random": tiles drawn at random, again and again (the warm scenarios);
  --   "once":   each thread takes its own share of the list, shuffled, and stops when every
  --             tile of it has been answered once, so no request finds a tile a previous
  --             request made (cold: a server's caches must not turn it warm half-way);
  --   "sweep":  the same share in list order, as a viewer's requests sweep over neighbouring
  --             tiles, also once each.
  -- Each thread has a Lua state of its own, so the number of threads comes as an argument.
  order = args[2] or "random"
  local count = tonumber(args[3] or 1)
  local first = math.floor((id - 1) * #paths / count) + 1
  local last = math.floor(id * #paths / count)
  share = {}
  for i = first, last do
    share[#share + 1] = paths[i]
  end
  if order == "once" then
    for i = #share, 2, -1 do
      local j = math.random(i)
      share[i], share[j] = share[j], share[i]
    end
  end
  issued = 0
  answered = 0
  non2xx = 0
end

function request()
  if order == "random" then
    return wrk.format(nil, paths[math.random(#paths)])
  end
  -- Past the end of the share (connections still in flight), the last tile again: those
  -- answers are not waited for, the thread stops at the share's last answer.
  issued = math.min(issued + 1, #share)
  return wrk.format(nil, share[issued])
end

function response(status, headers, body)
  if status < 200 or status > 299 then
    non2xx = non2xx + 1
  end
  answered = answered + 1
  if order ~= "random" and answered >= #share then
    wrk.thread:stop()
  end
end

function done(summary, latency, requests)
  local bad = 0
  for _, thread in ipairs(threads) do
    bad = bad + (thread:get("non2xx") or 0)
  end
  local e = summary.errors
  io.write(string.format(
    'WRK_RESULT {"requests": %d, "duration_us": %d, "bytes": %d, "non2xx": %d, ' ..
    '"connect": %d, "read": %d, "write": %d, "status": %d, "timeout": %d, ' ..
    '"p50_us": %d, "p99_us": %d, "mean_us": %.1f}\n',
    summary.requests, summary.duration, summary.bytes, bad,
    e.connect, e.read, e.write, e.status, e.timeout,
    latency:percentile(50), latency:percentile(99), latency.mean))
end
