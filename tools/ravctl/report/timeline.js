// The runs whose traces are there, and each as a timeline: who wrote when, what went wrong, and what was lost.

const BUCKETS = 240; // of a timeline
const MOST_LANES = 8; // sources of their own in a timeline
const GRAVITIES = [
  {name: 'plain', mark: ''},
  {name: 'warning', mark: '▲'},
  {name: 'error', mark: '✖'},
];

// By the words that those who trace use, as the other commands see it.
function gravityOf(text) {
  return text.includes('ERROR') || text.includes('FAILED') ? 2 : text.includes('WARNING') ? 1 : 0;
}

// "2024-05-06 10:11:12.345" as milliseconds, in a calendar without a zone.
function makeClock() {
  let second = '',
    at = 0;
  return (time) => {
    if (time.slice(0, 19) !== second) {
      second = time.slice(0, 19);
      at = Date.parse(second.replace(' ', 'T') + 'Z');
    }
    return at + (Number(time.slice(20, 23)) || 0);
  };
}

function timeText(milliseconds) {
  return Number.isFinite(milliseconds) ? new Date(milliseconds).toISOString().replace('T', ' ').slice(0, 23) : '–';
}

// Between the files of a run, where a ring buffer has lost its oldest entries to a wrap.
function findGaps(files, clock) {
  return files.flatMap((file, index) =>
    !file.wrapped || file.first === ''
      ? []
      : [
          {
            file: file.file,
            from: index > 0 && files[index - 1].last !== '' ? clock(files[index - 1].last) : null,
            to: clock(file.first),
          },
        ],
  );
}

// The entries of one run, with what is asked of each of them beside it.
class Run {
  constructor(number) {
    const text = answerText('trace-' + number),
      line = text.startsWith('[') ? text.indexOf('\n') : 0;
    const given = parseAnswer(text.slice(line));
    this.number = number;
    this.error = given.error?.message ?? null;
    this.entries = given.data ?? [];
    const count = this.entries.length,
      clock = makeClock(),
      ids = new Map();
    this.times = new Float64Array(count);
    this.sources = new Uint32Array(count);
    this.gravities = new Uint8Array(count);
    this.names = [];
    this.totals = []; // of the names
    this.first = Infinity;
    this.last = -Infinity;
    for (let index = 0; index < count; ++index) {
      const entry = this.entries[index],
        name = entry.source ?? '–',
        time = clock(entry.time);
      let id = ids.get(name);
      if (id === undefined) {
        ids.set(name, (id = this.names.push(name) - 1));
        this.totals.push(0);
      }
      ++this.totals[id];
      this.times[index] = time;
      this.sources[index] = id;
      this.gravities[index] = gravityOf(entry.text);
      if (time < this.first) this.first = time;
      if (time > this.last) this.last = time;
    }
    this.gaps = findGaps(line > 0 ? JSON.parse(text.slice(0, line)) : [], clock);
    this.lowered = null;
  }

  // The numbers of the sources, those with the most entries first.
  byCount() {
    return [...this.totals.keys()].sort((left, right) => this.totals[right] - this.totals[left]);
  }

  // So that the first search is as quick as those that follow.
  lowerAhead(index = 0) {
    const end = performance.now() + 10;
    while (index < this.entries.length && performance.now() < end) {
      for (const last = Math.min(index + 500, this.entries.length); index < last; ++index) this.loweredText(index);
    }
    if (index < this.entries.length) setTimeout(() => this.lowerAhead(index), 20);
  }

  // For a search in which case does not matter.
  loweredText(index) {
    this.lowered ??= new Array(this.entries.length);
    return (this.lowered[index] ??= this.entries[index].text.toLowerCase());
  }
}

// ---- a timeline

class Timeline {
  constructor(run, choose) {
    this.run = run;
    this.choose = choose; // called with (run, {from, to} or null, source or null)
    this.from = run.first;
    this.to = Math.max(run.last, run.first + 1);
    for (const gap of run.gaps) if (gap.from !== null) this.from = Math.min(this.from, gap.from);
    this.lanes = [];
    this.element = element('div', {class: 'timeline'}, this.laneRows(), this.notes());
  }

  bucketOf(time) {
    return Math.min(Math.max(Math.floor(((time - this.from) / (this.to - this.from)) * BUCKETS), 0), BUCKETS - 1);
  }

  timeAt(bucket) {
    return this.from + ((this.to - this.from) * bucket) / BUCKETS;
  }

  // Counts by lane, gravity and bucket: all entries, the sources with the most, and the others in one.
  count() {
    const {names, sources, gravities, times} = this.run,
      order = this.run.byCount();
    const own = order.length > MOST_LANES + 1 ? order.slice(0, MOST_LANES) : order;
    const laneOf = new Int32Array(names.length).fill(own.length + 1);
    own.forEach((id, index) => (laneOf[id] = index + 1));
    const makeLane = (name, id, label) => ({
      name,
      id,
      label,
      total: 0,
      counts: GRAVITIES.map(() => new Float64Array(BUCKETS)),
    });
    const lanes = [makeLane('All entries', null), ...own.map((id) => makeLane(names[id], id))];
    if (own.length < order.length) lanes.push(makeLane(`${order.length - own.length} other sources`, undefined));
    for (let index = 0; index < times.length; ++index) {
      const bucket = this.bucketOf(times[index]),
        gravity = gravities[index];
      ++lanes[0].counts[gravity][bucket];
      ++lanes[laneOf[sources[index]]].counts[gravity][bucket];
    }
    for (const lane of lanes) {
      lane.total = lane.counts.reduce((sum, counts) => sum + counts.reduce((left, right) => left + right, 0), 0);
      lane.errors = lane.counts[2].reduce((left, right) => left + right, 0);
    }
    return lanes;
  }

  laneRows() {
    return this.count().map((lane) => {
      const words = `${plural(lane.total, 'entry', 'entries')}, ${plural(lane.errors, 'error')}`;
      const chart = this.chart(lane, `${lane.name}: ${words}`);
      const canChoose = lane.id !== undefined;
      const label = element(
        canChoose ? 'button' : 'span',
        canChoose ? {type: 'button', class: 'lane'} : {class: 'lane'},
        element('span', {class: 'lanename'}, lane.name),
        element('small', null, words),
      );
      if (canChoose) label.addEventListener('click', () => this.choose(this.run, null, lane.id));
      this.lanes.push(chart);
      return element('div', {class: 'lanerow', 'data-entries': lane.total, 'data-errors': lane.errors}, label, chart);
    });
  }

  // Bars stand for entries; warnings and errors hang from above, errors down to the middle.
  chart(lane, text) {
    const highest = Math.max(
      1,
      ...lane.counts[0].map((count, bucket) => count + lane.counts[1][bucket] + lane.counts[2][bucket]),
    );
    let bars = '',
      warnings = '',
      errors = '';
    for (let bucket = 0; bucket < BUCKETS; ++bucket) {
      const [plain, warning, error] = lane.counts.map((counts) => counts[bucket]),
        sum = plain + warning + error;
      if (sum > 0) bars += `M${bucket} 24v${((-18 * Math.log1p(sum)) / Math.log1p(highest)).toFixed(1)}h1V24z`;
      if (warning > 0) warnings += `M${bucket} 0h1v5h-1z`;
      if (error > 0) errors += `M${bucket} 0h1v12h-1z`;
    }
    const chart = picture(
      text,
      BUCKETS,
      24,
      {class: 'chart', preserveAspectRatio: 'none'},
      this.run.gaps.map((gap) => this.gapShape(gap)),
      shape('path', {class: 'bars', d: bars}),
      shape('path', {class: 'warnings', d: warnings}),
      shape('path', {class: 'errors', d: errors}),
      shape('rect', {class: 'window', x: 0, y: 0, width: 0, height: 24}),
    );
    this.brush(chart);
    return chart;
  }

  // Crossed lines, so that it is seen without its colour.
  gapShape(gap) {
    const begin = gap.from === null ? 0 : ((gap.from - this.from) / (this.to - this.from)) * BUCKETS;
    const end = Math.max(((gap.to - this.from) / (this.to - this.from)) * BUCKETS, begin + 2);
    let lines = '';
    for (let x = begin; x < end; x += 3) lines += `M${x.toFixed(1)} 24L${Math.min(x + 3, end).toFixed(1)} 0`;
    return shape(
      'g',
      {class: 'gap'},
      shape('rect', {x: begin, y: 0, width: end - begin, height: 24}),
      shape('path', {d: lines}),
    );
  }

  // A click chooses what is under it, a drag what it covers.
  brush(chart) {
    let begin = null;
    const bucketAt = (event) => {
      const box = chart.getBoundingClientRect();
      return Math.min(Math.max(((event.clientX - box.left) / box.width) * BUCKETS, 0), BUCKETS);
    };
    chart.addEventListener('pointerdown', (event) => {
      if (event.button !== 0) return;
      begin = bucketAt(event);
      chart.setPointerCapture(event.pointerId);
    });
    chart.addEventListener('pointermove', (event) => {
      if (begin !== null) this.mark(Math.min(begin, bucketAt(event)), Math.max(begin, bucketAt(event)));
    });
    chart.addEventListener('pointerup', (event) => {
      if (begin === null) return;
      let [left, right] = [begin, bucketAt(event)].sort((one, other) => one - other);
      if (right - left < 1) [left, right] = [Math.floor(left), Math.floor(left) + 1];
      begin = null;
      this.choose(this.run, {from: this.timeAt(left), to: this.timeAt(right)}, null);
    });
  }

  mark(left, right) {
    for (const lane of this.lanes) {
      const rectangle = lane.querySelector('.window');
      rectangle.setAttribute('x', left);
      rectangle.setAttribute('width', Math.max(right - left, 0));
    }
  }

  showWindow(window) {
    if (window === null) return this.mark(0, 0);
    const place = (time) => ((time - this.from) / (this.to - this.from)) * BUCKETS;
    this.mark(place(window.from), place(window.to));
  }

  notes() {
    return [
      element(
        'p',
        {class: 'from'},
        `${timeText(this.from)} to ${timeText(this.to)}; bars stand for entries, `,
        'short marks from above for warnings, long ones for errors',
      ),
      this.run.gaps.map((gap) =>
        element(
          'p',
          {class: 'gapnote', 'data-gap': ''},
          '▨ Overwritten by a wrap of ',
          element('code', null, gap.file),
          ': ',
          gap.from === null
            ? `what was before ${timeText(gap.to)}`
            : `what was between ${timeText(gap.from)} and ${timeText(gap.to)}`,
        ),
      ),
    ];
  }
}
