-- wrk script of `make bench-web`: every request carries one of the sessions logged in before
-- the run (admin and viewer alike, taken in turn) and asks for the account list, one account
-- or the session, in turn.  Usage: wrk ... -s web.lua URL -- SESSIONS_FILE
-- SESSIONS_FILE holds one "TOKEN UID" line per session.
local threads = {}
local sessions = {}
local paths = { "/api/accounts", nil, "/api/session" }
local uids = { 10000, 10001, 10002, 10003, 10004 }

function setup(thread)
    thread:set("id", #threads)
    table.insert(threads, thread)
end

function init(args)
    for line in io.lines(args[1]) do
        local token = line:match("^(%x+)")
        if token then table.insert(sessions, token) end
    end
    assert(#sessions > 0, "no sessions in " .. args[1])
    next_session = id * 7 % #sessions
    turn = id
    bad = 0
end

function request()
    next_session = next_session % #sessions + 1
    turn = turn + 1
    local kind = turn % 3 + 1
    local path = paths[kind] or ("/api/accounts/" .. uids[turn % #uids + 1])
    return wrk.format("GET", path, { ["Cookie"] = "tvc_session=" .. sessions[next_session] })
end

function response(status, headers, body)
    if status ~= 200 then bad = bad + 1 end
end

function done(summary, latency, requests)
    local bad_total = 0
    for _, thread in ipairs(threads) do bad_total = bad_total + thread:get("bad") end
    local e = summary.errors
    io.write(string.format("load: requests=%d seconds=%.2f rps=%.0f p50_ms=%.2f p99_ms=%.2f max_ms=%.2f " ..
        "not200=%d connect=%d read=%d write=%d timeout=%d\n",
        summary.requests, summary.duration / 1e6, summary.requests / (summary.duration / 1e6),
        latency:percentile(50) / 1000, latency:percentile(99) / 1000, latency.max / 1000,
        bad_total, e.connect, e.read, e.write, e.timeout))
end
