// The traces: timelines, and below them the entries of one run in a list of which only what is seen is drawn. A filter
// looks at every entry, in slices, so that the page never waits for it.

const MOST_SOURCES = 2000; // to choose from
const ROW_HEIGHT = 22; // pixels, as in page.css
const TALLEST_LIST = 10000000; // pixels; browsers know no taller element
const SLICE_MS = 30;

// ---- the list

class EntryList {
  constructor() {
    this.rows = new Uint32Array(0);
    this.selected = -1;
    this.inside = element('div', {class: 'inside', role: 'presentation'});
    this.element = element(
      'div',
      {class: 'entries', role: 'listbox', tabindex: 0, 'aria-label': 'Entries'},
      this.inside,
    );
    this.whole = element(
      'pre',
      {class: 'whole', tabindex: 0, 'aria-label': 'The chosen entry'},
      'Choose an entry to see all of it.',
    );
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
    return Math.round(
      (this.element.scrollTop / (this.height - this.element.clientHeight)) *
        Math.max(this.rows.length - this.visible, 0),
    );
  }

  draw() {
    const top = this.top,
      made = [];
    const shift = this.height < TALLEST_LIST ? top * ROW_HEIGHT : this.element.scrollTop;
    for (let at = top; at < Math.min(top + this.visible + 2, this.rows.length); ++at) {
      const row = this.row(at);
      row.style.transform = `translateY(${Math.min(shift + (at - top) * ROW_HEIGHT, this.height - ROW_HEIGHT)}px)`;
      made.push(row);
    }
    this.inside.replaceChildren(...made);
    if (this.selected >= top && this.selected < top + made.length)
      this.element.setAttribute('aria-activedescendant', 'entry-' + this.selected);
    else this.element.removeAttribute('aria-activedescendant');
  }

  row(at) {
    const index = this.rows[at],
      entry = this.run.entries[index],
      gravity = GRAVITIES[this.run.gravities[index]];
    return element(
      'div',
      {
        class: 'entry ' + gravity.name,
        role: 'option',
        id: 'entry-' + at,
        'data-row': at,
        'aria-selected': at === this.selected,
        'aria-setsize': this.rows.length,
        'aria-posinset': at + 1,
      },
      element('span', {class: 'mark', role: 'img', 'aria-label': gravity.name}, gravity.mark),
      element('time', null, element('span', {class: 'date'}, entry.time.slice(0, 11)), entry.time.slice(11)),
      element('code', null, entry.thread),
      element('span', {class: 'text'}, entry.text),
    );
  }

  select(at) {
    if (this.rows.length === 0) return;
    this.selected = Math.min(Math.max(at, 0), this.rows.length - 1);
    const top = this.top;
    if (this.selected < top || this.selected >= top + this.visible - 1) {
      const first = Math.max(this.selected - Math.floor(this.visible / 2), 0);
      this.element.scrollTop =
        this.height < TALLEST_LIST
          ? first * ROW_HEIGHT
          : (first / Math.max(this.rows.length - this.visible, 1)) * (this.height - this.element.clientHeight);
    }
    const entry = this.run.entries[this.rows[this.selected]];
    this.whole.textContent = shown(
      `${entry.time} [${entry.thread}] ${entry.tag}\n${entry.text}`,
      LONGEST_WHOLE_TEXT,
      true,
    );
    this.draw();
  }

  press(event) {
    const page = Math.max(this.visible - 2, 1);
    const to = {
      ArrowDown: this.selected + 1,
      ArrowUp: this.selected - 1,
      PageDown: this.selected + page,
      PageUp: this.selected - page,
      Home: 0,
      End: this.rows.length - 1,
    }[event.key];
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
    this.window = null; // {from, to} in milliseconds
    this.turn = 0; // of the newest filter; an older one gives up
    this.list = new EntryList();
    this.timelines = runs.map((run) => new Timeline(run, (...chosen) => this.choose(...chosen)));
    this.makeControls();
  }

  makeControls() {
    const field = (label, control) => element('label', null, element('span', null, label), control);
    const options = (rows) => rows.map(([value, text]) => element('option', {value}, text));
    this.runBox = element('select', {id: 'trace-run'}, options(this.runs.map((run) => [run.number, runTitle(run)])));
    this.levelBox = element(
      'select',
      {id: 'trace-level'},
      options([
        [0, 'all'],
        [1, 'warnings and errors'],
        [2, 'errors'],
      ]),
    );
    this.sourceBox = element('select', {id: 'trace-source'});
    this.searchBox = element('input', {id: 'trace-search', type: 'search', autocomplete: 'off', spellcheck: 'false'});
    this.patternBox = element('input', {id: 'trace-pattern', type: 'checkbox'});
    const slider = (id, value) => element('input', {id, type: 'range', min: 0, max: BUCKETS, value});
    this.fromBox = slider('trace-from', 0);
    this.toBox = slider('trace-to', BUCKETS);
    this.clearButton = element('button', {type: 'button', id: 'trace-clear'}, 'Show all');
    this.state = element('p', {role: 'status', id: 'trace-state'});
    this.controls = element(
      'form',
      {class: 'controls', 'aria-label': 'Filter of the entries'},
      field('Run', this.runBox),
      field('Level', this.levelBox),
      field('Source', this.sourceBox),
      field('Text (case does not matter)', this.searchBox),
      element('label', {class: 'check'}, this.patternBox, ' as a regular expression'),
      field('From', this.fromBox),
      field('To', this.toBox),
      this.clearButton,
    );
    this.controls.addEventListener('submit', (event) => event.preventDefault());
    this.runBox.addEventListener('change', () =>
      this.choose(
        this.runs.find((run) => run.number === Number(this.runBox.value)),
        null,
        null,
      ),
    );
    for (const box of [this.levelBox, this.sourceBox, this.patternBox])
      box.addEventListener('change', () => this.filter());
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
    const {names} = this.run,
      ids = this.run
        .byCount()
        .slice(0, MOST_SOURCES)
        .sort((left, right) => (names[left] < names[right] ? -1 : 1));
    this.sourceBox.replaceChildren(
      element('option', {value: ''}, 'all'),
      ...ids.map((id) => element('option', {value: id}, shown(names[id], 60))),
    );
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
    const {from, to} = this.timeline,
      place = (time) => String(Math.round(((time - from) / (to - from)) * BUCKETS));
    this.fromBox.value = window === null ? '0' : place(window.from);
    this.toBox.value = window === null ? String(BUCKETS) : place(window.to);
    this.filter();
  }

  slide() {
    const from = Math.min(this.fromBox.valueAsNumber, this.toBox.valueAsNumber),
      to = Math.max(this.fromBox.valueAsNumber, this.toBox.valueAsNumber);
    this.window =
      from === 0 && to === BUCKETS ? null : {from: this.timeline.timeAt(from), to: this.timeline.timeAt(to)};
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
    const level = Number(this.levelBox.value),
      source = this.sourceBox.value === '' ? null : Number(this.sourceBox.value);
    const from = this.window?.from ?? -Infinity,
      to = this.window?.to ?? Infinity;
    const found = new Uint32Array(entries.length);
    let count = 0,
      index = 0;
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
        this.state.textContent = `Looking: ${Math.floor((100 * index) / entries.length)} %`;
        return void setTimeout(slice);
      }
      this.list.show(this.run, found.subarray(0, count));
      this.state.textContent =
        `${count.toLocaleString('en')} of ${plural(entries.length, 'entry', 'entries')}` +
        (this.window === null ? '' : `, ${timeText(from)} to ${timeText(to)}`);
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
  const how =
    kept === null
      ? ''
      : kept.signal !== null
        ? ` by ${kept.signal}`
        : kept.status !== null
          ? ` with status ${kept.status}`
          : '';
  return `kept run ${run.number}` + (kept === null ? '' : `, ended ${kept.time}${how}`);
}

function drawTraces() {
  const runs = [];
  for (let number = 0; answerElements('trace-' + number).length > 0; ++number) runs.push(new Run(number));
  const drawn = runs.filter((run) => run.entries.length > 0);
  section(
    'trace',
    runs
      .filter((run) => run.error !== null)
      .map((run) => element('p', {class: 'untold'}, `Not told of the ${runTitle(run)}: ${run.error}`)),
  );
  if (drawn.length === 0)
    return section(
      'trace',
      element('p', {class: 'untold'}, 'There is no trace. A bundle has it with ravctl bundle --trace.'),
    );
  const view = new TraceView(drawn);
  section(
    'trace',
    element(
      'div',
      {class: 'runs'},
      view.timelines.map((timeline) =>
        element(
          'article',
          {class: 'run', 'data-run': timeline.run.number},
          element('h3', null, runTitle(timeline.run)),
          timeline.element,
        ),
      ),
    ),
    view.controls,
    view.state,
    view.list.element,
    view.list.whole,
  );
  view.choose(drawn[0], null, null);
}
