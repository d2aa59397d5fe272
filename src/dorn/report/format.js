// Numbers as text. Times are microseconds; what is not known is a dash.

const UNKNOWN = '–';

function pad2(number) {
  return String(number).padStart(2, '0');
}

function formatTime(us) {
  if (!isKnown(us)) return UNKNOWN;
  if (us < 0) return `−${formatTime(-us)}`;
  if (us === 0) return '0 s';
  if (us < 1000) return `${Math.round(us)} µs`;
  if (us < 9995) return `${(us / 1000).toFixed(1)} ms`;
  if (us < 999500) return `${Math.round(us / 1000)} ms`;
  if (us < 59995000) return `${(us / 1e6).toFixed(us < 9995000 ? 2 : 1)} s`;
  const seconds = Math.round(us / 1e6);
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min ${pad2(seconds % 60)} s`;
  return `${Math.floor(seconds / 3600)} h ${pad2(Math.floor((seconds % 3600) / 60))} min`;
}

// A moment of the build for an axis whose marks are `step` apart, and that goes up to `end`.
function formatMark(us, step, end) {
  if (us === 0) return '0';
  if (end < 1e6) return `${(us / 1000).toFixed(limit(Math.ceil(3 - Math.log10(step)), 0, 3))} ms`;
  if (step >= 6e7)
    return us >= 3.6e9 ? `${Math.floor(us / 3.6e9)}:${pad2(Math.floor((us % 3.6e9) / 6e7))} h` : `${us / 6e7} min`;
  const digits = step >= 1e6 ? 0 : Math.min(6, Math.ceil(6 - Math.log10(step)));
  const seconds = us / 1e6;
  if (seconds < 60) return `${seconds.toFixed(digits)} s`;
  const minutes = Math.floor(seconds / 60);
  const rest = (seconds - minutes * 60).toFixed(digits);
  return `${minutes}:${rest.padStart(digits ? digits + 3 : 2, '0')}`;
}

function formatBytes(bytes) {
  if (!isKnown(bytes)) return UNKNOWN;
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let unit = 0;
  while (bytes >= 1024 && unit < units.length - 1) {
    bytes /= 1024;
    ++unit;
  }
  return `${unit === 0 || bytes >= 100 ? Math.round(bytes) : bytes.toFixed(1)} ${units[unit]}`;
}

function formatCount(number) {
  return isKnown(number) ? number.toLocaleString('en-GB') : UNKNOWN;
}

function formatShare(share) {
  if (!isKnown(share)) return UNKNOWN;
  const isFine = (share > 0 && share < 0.0995) || (share >= 0.995 && share < 1);
  return isFine ? `${Math.min(share * 100, 99.9).toFixed(1)} %` : `${Math.round(share * 100)} %`;
}

function plural(number, one, many) {
  return `${formatCount(number)} ${number === 1 ? one : many}`;
}

function formatDate(unixUs) {
  if (!isKnown(unixUs)) return UNKNOWN;
  return new Date(unixUs / 1000).toLocaleString('en-GB', { dateStyle: 'medium', timeStyle: 'medium' });
}

function formatClock(unixUs) {
  const at = new Date(unixUs / 1000);
  return `${pad2(at.getHours())}:${pad2(at.getMinutes())}:${pad2(at.getSeconds())}.${String(at.getMilliseconds()).padStart(3, '0')}`;
}

function describeOutcome(job, outcome) {
  const code = isKnown(job.exit_code) ? job.exit_code : null;
  switch (outcome) {
    case 'ok':
      return 'succeeded';
    case 'failed':
      return code === null ? 'failed' : `failed, exit ${code}`;
    case 'signalled':
      return isKnown(job.signal) && job.signal > 0 ? `ended by signal ${job.signal}` : 'ended by a signal';
    case 'overdue':
      return 'ended, out of time';
    case 'cancelled':
      return 'cancelled';
    case 'running':
      return 'still running';
    case 'waiting':
      return 'still waiting';
    default:
      return 'outcome not known';
  }
}
