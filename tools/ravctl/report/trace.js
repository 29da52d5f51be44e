// The traces: each run as a timeline of its sources, and below them a list of the entries of one run, of which only what
// is seen is drawn. A filter looks at every entry, in slices, so that the page never waits for it.

const BUCKETS = 240;  // of a timeline
const MOST_LANES = 8;  // sources of their own in a timeline
const MOST_SOURCES = 2000;  // to choose from
const ROW_HEIGHT = 22;  // pixels, as in page.css
const TALLEST_LIST = 10000000;  // pixels; browsers know no taller element
const SLICE_MS = 30;
const GRAVITIES = [{name: 'plain', mark: ''}, {name: 'warning', mark: '▲'}, {name: 'error', mark: '✖'}];

// By the words that those who trace use, as the other commands see it.
function gravityOf(text) {
  return text.includes('ERROR') || text.includes('FAILED') ? 2 : text.includes('WARNING') ? 1 : 0;
}

// "2024-05-06 10:11:12.345" as milliseconds, in a calendar without a zone.
function makeClock() {
  let second = '', at = 0;
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
  return files.flatMap((file, index) => !file.wrapped || file.first === '' ? [] : [{
    file: file.file,
    from: index > 0 && files[index - 1].last !== '' ? clock(files[index - 1].last) : null,
    to: clock(file.first),
  }]);
}

// The entries of one run, with what is asked of each of them beside it.
class Run {
  constructor(number) {
    const text = answerText('trace-' + number), line = text.startsWith('[') ? text.indexOf('\n') : 0;
    const given = parseAnswer(text.slice(line));
    this.number = number;
    this.error = given.error?.message ?? null;
    this.entries = given.data ?? [];
    const count = this.entries.length, clock = makeClock(), ids = new Map();
    this.times = new Float64Array(count);
    this.sources = new Uint32Array(count);
    this.gravities = new Uint8Array(count);
    this.names = [];
    this.totals = [];  // of the names
    this.first = Infinity;
    this.last = -Infinity;
    for (let index = 0; index < count; ++index) {
      const entry = this.entries[index], name = entry.source ?? '–', time = clock(entry.time);
      let id = ids.get(name);
      if (id === undefined) {
        ids.set(name, id = this.names.push(name) - 1);
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
    return this.lowered[index] ??= this.entries[index].text.toLowerCase();
  }
}

// ---- a timeline

class Timeline {
  constructor(run, choose) {
    this.run = run;
    this.choose = choose;  // called with (run, {from, to} or null, source or null)
    this.from = run.first;
    this.to = Math.max(run.last, run.first + 1);
    for (const gap of run.gaps) if (gap.from !== null) this.from = Math.min(this.from, gap.from);
    this.lanes = [];
    this.element = element('div', {class: 'timeline'}, this.laneRows(), this.notes());
  }

  bucketOf(time) {
    return Math.min(Math.max(Math.floor((time - this.from) / (this.to - this.from) * BUCKETS), 0), BUCKETS - 1);
  }

  timeAt(bucket) {
    return this.from + (this.to - this.from) * bucket / BUCKETS;
  }

  // Counts by lane, gravity and bucket: all entries, the sources with the most, and the others in one.
  count() {
    const {names, sources, gravities, times} = this.run, order = this.run.byCount();
    const own = order.length > MOST_LANES + 1 ? order.slice(0, MOST_LANES) : order;
    const laneOf = new Int32Array(names.length).fill(own.length + 1);
    own.forEach((id, index) => laneOf[id] = index + 1);
    const makeLane = (name, id, label) => ({name, id, label, total: 0, counts: GRAVITIES.map(() => new Float64Array(BUCKETS))});
    const lanes = [makeLane('All entries', null), ...own.map((id) => makeLane(names[id], id))];
    if (own.length < order.length) lanes.push(makeLane(`${order.length - own.length} other sources`, undefined));
    for (let index = 0; index < times.length; ++index) {
      const bucket = this.bucketOf(times[index]), gravity = gravities[index];
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
      const label = element(canChoose ? 'button' : 'span', canChoose ? {type: 'button', class: 'lane'} : {class: 'lane'},
        element('span', {class: 'lanename'}, lane.name), element('small', null, words));
      if (canChoose) label.addEventListener('click', () => this.choose(this.run, null, lane.id));
      this.lanes.push(chart);
      return element('div', {class: 'lanerow', 'data-entries': lane.total, 'data-errors': lane.errors}, label, chart);
    });
  }

  // Bars stand for entries; warnings and errors hang from above, errors down to the middle.
  chart(lane, text) {
    const highest = Math.max(1, ...lane.counts[0].map((count, bucket) => count + lane.counts[1][bucket] + lane.counts[2][bucket]));
    let bars = '', warnings = '', errors = '';
    for (let bucket = 0; bucket < BUCKETS; ++bucket) {
      const [plain, warning, error] = lane.counts.map((counts) => counts[bucket]), sum = plain + warning + error;
      if (sum > 0) bars += `M${bucket} 24v${(-18 * Math.log1p(sum) / Math.log1p(highest)).toFixed(1)}h1V24z`;
      if (warning > 0) warnings += `M${bucket} 0h1v5h-1z`;
      if (error > 0) errors += `M${bucket} 0h1v12h-1z`;
    }
    const chart = picture(text, BUCKETS, 24, {class: 'chart', preserveAspectRatio: 'none'},
      this.run.gaps.map((gap) => this.gapShape(gap)),
      shape('path', {class: 'bars', d: bars}), shape('path', {class: 'warnings', d: warnings}), shape('path', {class: 'errors', d: errors}),
      shape('rect', {class: 'window', x: 0, y: 0, width: 0, height: 24}));
    this.brush(chart);
    return chart;
  }

  // Crossed lines, so that it is seen without its colour.
  gapShape(gap) {
    const begin = gap.from === null ? 0 : (gap.from - this.from) / (this.to - this.from) * BUCKETS;
    const end = Math.max((gap.to - this.from) / (this.to - this.from) * BUCKETS, begin + 2);
    let lines = '';
    for (let x = begin; x < end; x += 3) lines += `M${x.toFixed(1)} 24L${Math.min(x + 3, end).toFixed(1)} 0`;
    return shape('g', {class: 'gap'}, shape('rect', {x: begin, y: 0, width: end - begin, height: 24}), shape('path', {d: lines}));
  }

  // A click chooses what is under it, a drag what it covers.
  brush(chart) {
    let begin = null;
    const bucketAt = (event) => {
      const box = chart.getBoundingClientRect();
      return Math.min(Math.max((event.clientX - box.left) / box.width * BUCKETS, 0), BUCKETS);
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
    const place = (time) => (time - this.from) / (this.to - this.from) * BUCKETS;
    this.mark(place(window.from), place(window.to));
  }

  notes() {
    return [
      element('p', {class: 'from'}, `${timeText(this.from)} to ${timeText(this.to)}; bars stand for entries, short marks from above for warnings, long ones for errors`),
      this.run.gaps.map((gap) => element('p', {class: 'gapnote', 'data-gap': ''}, '▨ Overwritten by a wrap of ', element('code', null, gap.file), ': ',
        gap.from === null ? `what was before ${timeText(gap.to)}` : `what was between ${timeText(gap.from)} and ${timeText(gap.to)}`)),
    ];
  }
}

// ---- the list

class EntryList {
  constructor() {
    this.rows = new Uint32Array(0);
    this.selected = -1;
    this.inside = element('div', {class: 'inside', role: 'presentation'});
    this.element = element('div', {class: 'entries', role: 'listbox', tabindex: 0, 'aria-label': 'Entries'}, this.inside);
    this.whole = element('pre', {class: 'whole', tabindex: 0, 'aria-label': 'The chosen entry'}, 'Choose an entry to see all of it.');
    this.element.addEventListener('scroll', () => this.draw(), {passive: true});
    this.element.addEventListener('click', (event) => {
      const row = event.target.closest('[role=option]');
      if (row !== null) this.select(Number(row.dataset.row));
    });
    this.element.addEventListener('keydown', (event) => this.press(event));
    new ResizeObserver(() => this.draw()).observe(this.element);
  }

  show(run, rows) {
    this.run = run;
    this.rows = rows;
    this.selected = -1;
    this.height = Math.min(rows.length * ROW_HEIGHT, TALLEST_LIST);
    this.inside.style.height = this.height + 'px';
    this.element.scrollTop = 0;
    this.draw();
  }

  get visible() {
    return Math.ceil(this.element.clientHeight / ROW_HEIGHT);
  }

  // Of a list taller than an element can be, the place of the scroll bar stands for the row.
  get top() {
    if (this.height < TALLEST_LIST) return Math.floor(this.element.scrollTop / ROW_HEIGHT);
    return Math.round(this.element.scrollTop / (this.height - this.element.clientHeight) * Math.max(this.rows.length - this.visible, 0));
  }

  draw() {
    const top = this.top, made = [];
    const shift = this.height < TALLEST_LIST ? top * ROW_HEIGHT : this.element.scrollTop;
    for (let at = top; at < Math.min(top + this.visible + 2, this.rows.length); ++at) {
      const row = this.row(at);
      row.style.transform = `translateY(${Math.min(shift + (at - top) * ROW_HEIGHT, this.height - ROW_HEIGHT)}px)`;
      made.push(row);
    }
    this.inside.replaceChildren(...made);
    if (this.selected >= top && this.selected < top + made.length) this.element.setAttribute('aria-activedescendant', 'entry-' + this.selected);
    else this.element.removeAttribute('aria-activedescendant');
  }

  row(at) {
    const index = this.rows[at], entry = this.run.entries[index], gravity = GRAVITIES[this.run.gravities[index]];
    return element('div', {class: 'entry ' + gravity.name, role: 'option', id: 'entry-' + at, 'data-row': at,
      'aria-selected': at === this.selected, 'aria-setsize': this.rows.length, 'aria-posinset': at + 1},
    element('span', {class: 'mark', role: 'img', 'aria-label': gravity.name}, gravity.mark), element('time', null, element('span', {class: 'date'}, entry.time.slice(0, 11)), entry.time.slice(11)),
    element('code', null, entry.thread), element('span', {class: 'text'}, entry.text));
  }

  select(at) {
    if (this.rows.length === 0) return;
    this.selected = Math.min(Math.max(at, 0), this.rows.length - 1);
    const top = this.top;
    if (this.selected < top || this.selected >= top + this.visible - 1) {
      const first = Math.max(this.selected - Math.floor(this.visible / 2), 0);
      this.element.scrollTop = this.height < TALLEST_LIST ? first * ROW_HEIGHT
        : first / Math.max(this.rows.length - this.visible, 1) * (this.height - this.element.clientHeight);
    }
    const entry = this.run.entries[this.rows[this.selected]];
    this.whole.textContent = shown(`${entry.time} [${entry.thread}] ${entry.tag}\n${entry.text}`, LONGEST_WHOLE_TEXT, true);
    this.draw();
  }

  press(event) {
    const page = Math.max(this.visible - 2, 1);
    const to = {ArrowDown: this.selected + 1, ArrowUp: this.selected - 1, PageDown: this.selected + page, PageUp: this.selected - page,
      Home: 0, End: this.rows.length - 1}[event.key];
    if (to === undefined) return;
    event.preventDefault();
    this.select(to);
  }
}

// ---- what is looked for

class TraceView {
  constructor(runs) {
    this.runs = runs;
    this.run = runs[0];
    this.window = null;  // {from, to} in milliseconds
    this.turn = 0;  // of the newest filter; an older one gives up
    this.list = new EntryList();
    this.timelines = runs.map((run) => new Timeline(run, (...chosen) => this.choose(...chosen)));
    this.makeControls();
  }

  makeControls() {
    const field = (label, control) => element('label', null, element('span', null, label), control);
    const options = (rows) => rows.map(([value, text]) => element('option', {value}, text));
    this.runBox = element('select', {id: 'trace-run'}, options(this.runs.map((run) => [run.number, runTitle(run)])));
    this.levelBox = element('select', {id: 'trace-level'}, options([[0, 'all'], [1, 'warnings and errors'], [2, 'errors']]));
    this.sourceBox = element('select', {id: 'trace-source'});
    this.searchBox = element('input', {id: 'trace-search', type: 'search', autocomplete: 'off', spellcheck: 'false'});
    this.patternBox = element('input', {id: 'trace-pattern', type: 'checkbox'});
    const slider = (id, value) => element('input', {id, type: 'range', min: 0, max: BUCKETS, value});
    this.fromBox = slider('trace-from', 0);
    this.toBox = slider('trace-to', BUCKETS);
    this.clearButton = element('button', {type: 'button', id: 'trace-clear'}, 'Show all');
    this.state = element('p', {role: 'status', id: 'trace-state'});
    this.controls = element('form', {class: 'controls', 'aria-label': 'Filter of the entries'},
      field('Run', this.runBox), field('Level', this.levelBox), field('Source', this.sourceBox), field('Text (case does not matter)', this.searchBox),
      element('label', {class: 'check'}, this.patternBox, ' as a regular expression'), field('From', this.fromBox), field('To', this.toBox), this.clearButton);
    this.controls.addEventListener('submit', (event) => event.preventDefault());
    this.runBox.addEventListener('change', () => this.choose(this.runs.find((run) => run.number === Number(this.runBox.value)), null, null));
    for (const box of [this.levelBox, this.sourceBox, this.patternBox]) box.addEventListener('change', () => this.filter());
    this.searchBox.addEventListener('input', () => this.filter());
    for (const box of [this.fromBox, this.toBox]) box.addEventListener('input', () => this.slide());
    this.clearButton.addEventListener('click', () => {
      this.searchBox.value = '';
      this.levelBox.value = '0';
      this.choose(this.run, null, null);
    });
  }

  get timeline() {
    return this.timelines[this.runs.indexOf(this.run)];
  }

  offerSources() {
    const {names} = this.run, ids = this.run.byCount().slice(0, MOST_SOURCES).sort((left, right) => names[left] < names[right] ? -1 : 1);
    this.sourceBox.replaceChildren(element('option', {value: ''}, 'all'), ...ids.map((id) => element('option', {value: id}, shown(names[id], 60))));
  }

  choose(run, window, source) {
    if (run !== this.run || this.sourceBox.length === 0) {
      this.run = run;
      this.runBox.value = String(run.number);
      this.offerSources();
      run.lowerAhead();
    }
    this.window = window;
    if (window === null) this.sourceBox.value = source === null ? '' : String(source);
    const {from, to} = this.timeline, place = (time) => String(Math.round((time - from) / (to - from) * BUCKETS));
    this.fromBox.value = window === null ? '0' : place(window.from);
    this.toBox.value = window === null ? String(BUCKETS) : place(window.to);
    this.filter();
  }

  slide() {
    const from = Math.min(this.fromBox.valueAsNumber, this.toBox.valueAsNumber), to = Math.max(this.fromBox.valueAsNumber, this.toBox.valueAsNumber);
    this.window = from === 0 && to === BUCKETS ? null : {from: this.timeline.timeAt(from), to: this.timeline.timeAt(to)};
    this.filter();
  }

  // Whether the text of an entry is wanted; throws for what is no pattern.
  textTest() {
    const text = this.searchBox.value;
    if (text === '') return null;
    if (this.patternBox.checked) {
      const pattern = new Pattern(text);
      return (index) => pattern.test(this.run.entries[index].text);
    }
    const lowered = text.toLowerCase();
    return (index) => this.run.loweredText(index).includes(lowered);
  }

  filter() {
    const turn = ++this.turn;
    for (const timeline of this.timelines) timeline.showWindow(timeline.run === this.run ? this.window : null);
    let test = null;
    try {
      test = this.textTest();
      this.searchBox.removeAttribute('aria-invalid');
    } catch (error) {
      this.searchBox.setAttribute('aria-invalid', 'true');
      this.state.textContent = shown('No regular expression: ' + error.message);
      return;
    }
    const {times, sources, gravities, entries} = this.run;
    const level = Number(this.levelBox.value), source = this.sourceBox.value === '' ? null : Number(this.sourceBox.value);
    const from = this.window?.from ?? -Infinity, to = this.window?.to ?? Infinity;
    const found = new Uint32Array(entries.length);
    let count = 0, index = 0;
    const slice = () => {
      if (turn !== this.turn) return;
      const end = performance.now() + SLICE_MS;
      while (index < entries.length) {
        if ((index & 255) === 255 && performance.now() > end) break;
        const at = index++;
        if (gravities[at] < level || (source !== null && sources[at] !== source)) continue;
        if (!(times[at] >= from && times[at] <= to) && this.window !== null) continue;
        if (test === null || test(at)) found[count++] = at;
      }
      if (index < entries.length) {
        this.state.textContent = `Looking: ${Math.floor(100 * index / entries.length)} %`;
        return void setTimeout(slice);
      }
      this.list.show(this.run, found.subarray(0, count));
      this.state.textContent = `${count.toLocaleString('en')} of ${plural(entries.length, 'entry', 'entries')}`
        + (this.window === null ? '' : `, ${timeText(from)} to ${timeText(to)}`);
    };
    slice();
  }
}

function keptRun(number) {
  return answer('runs').data?.find((each) => each.run === number) ?? null;
}

function runTitle(run) {
  const kept = keptRun(run.number);
  if (run.number === 0) return 'present run' + (kept === null ? '' : `, last wrote ${kept.time}`);
  const how = kept === null ? '' : kept.signal !== null ? ` by ${kept.signal}` : kept.status !== null ? ` with status ${kept.status}` : '';
  return `kept run ${run.number}` + (kept === null ? '' : `, ended ${kept.time}${how}`);
}

function drawTraces() {
  const runs = [];
  for (let number = 0; answerElements('trace-' + number).length > 0; ++number) runs.push(new Run(number));
  const drawn = runs.filter((run) => run.entries.length > 0);
  section('trace', runs.filter((run) => run.error !== null).map((run) => element('p', {class: 'untold'}, `Not told of the ${runTitle(run)}: ${run.error}`)));
  if (drawn.length === 0) return section('trace', element('p', {class: 'untold'}, 'There is no trace. A bundle has it with ravctl bundle --trace.'));
  const view = new TraceView(drawn);
  section('trace',
    element('div', {class: 'runs'}, view.timelines.map((timeline) => element('article', {class: 'run', 'data-run': timeline.run.number},
      element('h3', null, runTitle(timeline.run)), timeline.element))),
    view.controls, view.state, view.list.element, view.list.whole);
  view.choose(drawn[0], null, null);
}
