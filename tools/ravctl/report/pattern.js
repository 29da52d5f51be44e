// Regular expressions that take time in proportion to the text alone, whatever the pattern is: those of the browser may
// never end on a pattern such as (a+)+$. A pattern becomes a program whose threads run side by side, and the sets of
// threads become states that are made when they are first met.
//
// Known: characters, ., [classes], \d \w \s and their opposites, ^ $ \b \B, groups, |, * + ? {m,n} also with ? behind
// them. Case does not matter. Back references and look-around are not known.

const MOST_STEPS = 2000; // of a program
const MOST_STATES = 1000;

const NAMED_CLASSES = {
  d: (char) => char >= '0' && char <= '9',
  w: (char) => /[0-9a-z_]/i.test(char),
  s: (char) => /\s/.test(char),
};
const CONTROLS = {n: '\n', t: '\t', r: '\r', f: '\f', v: '\v', 0: '\0'};

class Pattern {
  // Throws Error, for the user to read, for what is no pattern.
  constructor(text) {
    this.text = text;
    this.at = 0;
    this.program = [];
    const tree = this.parseChoice();
    if (this.at < text.length) throw new Error('unmatched )');
    this.emit(tree);
    this.add({kind: 'match'});
    this.forget();
  }

  // Whether the pattern matches somewhere in the text.
  test(text) {
    let state = this.first;
    for (let at = 0; at < text.length; ++at) {
      const code = text.charCodeAt(at);
      let next = code < 128 ? state.ascii[code] : state.others.get(code);
      if (next === undefined) next = this.step(state, text[at]);
      if (next === null) return true;
      state = next;
    }
    if (state.atEnd === undefined) state.atEnd = this.closure(state, 'end').includes(this.program.length - 1);
    return state.atEnd;
  }

  // ---- the states

  forget() {
    this.states = new Map();
    this.first = this.state([0], 'start');
  }

  // steps: where threads stand. before: what stands before them: 'start', 'word' or 'other'.
  state(steps, before) {
    const key = before + steps.join(',');
    let state = this.states.get(key);
    if (state === undefined) {
      state = {steps, before, ascii: new Array(128).fill(undefined), others: new Map(), atEnd: undefined};
      this.states.set(key, state);
    }
    return state;
  }

  // The state behind the character; null when the pattern has matched.
  step(state, char) {
    const kind = NAMED_CLASSES.w(char) ? 'word' : 'other';
    const reached = this.closure(state, kind);
    let next = null;
    if (!reached.includes(this.program.length - 1)) {
      const steps = new Set([0]); // a match may begin anywhere
      for (const at of reached) {
        const step = this.program[at];
        if (step.kind === 'char' && step.has(char)) steps.add(at + 1);
      }
      if (this.states.size > MOST_STATES) this.forget();
      next = this.state(
        [...steps].sort((left, right) => left - right),
        kind,
      );
    }
    const code = char.charCodeAt(0);
    if (code < 128) state.ascii[code] = next;
    else state.others.set(code, next);
    return next;
  }

  // Where the threads of the state get without a character; what comes next is 'word', 'other' or 'end'.
  closure(state, after) {
    const seen = new Set(),
      waiting = [...state.steps];
    while (waiting.length > 0) {
      const at = waiting.pop();
      if (seen.has(at)) continue;
      seen.add(at);
      const step = this.program[at];
      if (step.kind === 'split') waiting.push(...step.to);
      if (step.kind === 'assert' && step.holds(state.before, after)) waiting.push(at + 1);
    }
    return [...seen];
  }

  // ---- the program

  add(step) {
    if (this.program.length >= MOST_STEPS) throw new Error('the pattern is too large');
    return this.program.push(step) - 1;
  }

  emit(node) {
    if (node.kind === 'char' || node.kind === 'assert') this.add(node);
    if (node.kind === 'list') node.items.forEach((item) => this.emit(item));
    if (node.kind === 'choice') {
      const split = this.add({kind: 'split', to: []}),
        ends = [];
      for (const item of node.items) {
        this.program[split].to.push(this.program.length);
        this.emit(item);
        ends.push(this.add({kind: 'split', to: []}));
      }
      for (const end of ends) this.program[end].to.push(this.program.length);
    }
    if (node.kind === 'repeat') this.emitRepeat(node);
  }

  emitRepeat({item, least, most}) {
    for (let count = 0; count < least; ++count) this.emit(item);
    if (most === Infinity) {
      const split = this.add({kind: 'split', to: [this.program.length + 1]});
      this.emit(item);
      this.add({kind: 'split', to: [split]});
      this.program[split].to.push(this.program.length);
      return;
    }
    const splits = [];
    for (let count = least; count < most; ++count) {
      splits.push(this.add({kind: 'split', to: [this.program.length + 1]}));
      this.emit(item);
    }
    for (const split of splits) this.program[split].to.push(this.program.length);
  }

  // ---- the text of the pattern

  takes(char) {
    if (this.text[this.at] !== char) return false;
    ++this.at;
    return true;
  }

  parseChoice() {
    const items = [this.parseList()];
    while (this.takes('|')) items.push(this.parseList());
    return items.length === 1 ? items[0] : {kind: 'choice', items};
  }

  parseList() {
    const items = [];
    while (this.at < this.text.length && !'|)'.includes(this.text[this.at])) items.push(this.parseRepeat());
    return {kind: 'list', items};
  }

  parseRepeat() {
    let item = this.parseItem();
    for (;;) {
      let least = 0,
        most = Infinity;
      const counts = /^\{(\d{1,4})(,(\d{0,4}))?\}/.exec(this.text.slice(this.at, this.at + 12));
      if (this.takes('+')) least = 1;
      else if (this.takes('?')) most = 1;
      else if (counts !== null) {
        this.at += counts[0].length;
        least = Number(counts[1]);
        most = counts[2] === undefined ? least : counts[3] === '' ? Infinity : Number(counts[3]);
        if (most < least) throw new Error('counts in the wrong order');
      } else if (!this.takes('*')) return item;
      this.takes('?');
      item = {kind: 'repeat', item, least, most};
    }
  }

  parseItem() {
    const char = this.text[this.at++];
    if (char === '(') return this.parseGroup();
    if (char === '[') return this.parseClass();
    if (char === '\\') return this.parseEscape();
    if (char === '.') return {kind: 'char', has: (other) => other !== '\n'};
    if (char === '^') return {kind: 'assert', holds: (before) => before === 'start'};
    if (char === '$') return {kind: 'assert', holds: (before, after) => after === 'end'};
    if ('*+?'.includes(char)) throw new Error('nothing to repeat before ' + char);
    return this.literal(char);
  }

  literal(char) {
    const lower = char.toLowerCase(),
      upper = char.toUpperCase();
    return {kind: 'char', has: (other) => other === lower || other === upper};
  }

  parseGroup() {
    if (this.takes('?') && !this.takes(':')) throw new Error('(? without : is not known here');
    if ((this.depth = (this.depth ?? 0) + 1) > 100) throw new Error('too many groups in each other');
    const inside = this.parseChoice();
    --this.depth;
    if (!this.takes(')')) throw new Error('missing )');
    return inside;
  }

  parseEscape() {
    const char = this.text[this.at++];
    if (char === undefined) throw new Error('a \\ at the end');
    const named = NAMED_CLASSES[char.toLowerCase()];
    if (named !== undefined) return {kind: 'char', has: char < 'a' ? (other) => !named(other) : named};
    if (char === 'b' || char === 'B') {
      const isEdge = (before, after) => (before === 'word') !== (after === 'word');
      return {kind: 'assert', holds: char === 'b' ? isEdge : (before, after) => !isEdge(before, after)};
    }
    if (CONTROLS[char] !== undefined) return this.literal(CONTROLS[char]);
    if (/[0-9a-z]/i.test(char)) throw new Error('\\' + char + ' is not known here');
    return this.literal(char);
  }

  parseClass() {
    const isOpposite = this.takes('^'),
      tests = [];
    for (let isFirst = true; isFirst || !this.takes(']'); isFirst = false) {
      if (this.at >= this.text.length) throw new Error('missing ]');
      const from = this.classMember();
      const isRange = typeof from === 'string' && this.text[this.at] === '-' && this.text[this.at + 1] !== ']';
      if (!isRange) {
        tests.push(typeof from === 'string' ? this.literal(from).has : from);
        continue;
      }
      ++this.at;
      const to = this.classMember();
      if (typeof to !== 'string' || to < from) throw new Error('not a range: ' + from + '-' + to);
      const isInside = (char) => char >= from && char <= to;
      tests.push((char) => isInside(char.toLowerCase()) || isInside(char.toUpperCase()));
    }
    const has = (char) => tests.some((test) => test(char));
    return {kind: 'char', has: isOpposite ? (char) => !has(char) : has};
  }

  // A character, or the test of a named class.
  classMember() {
    const char = this.text[this.at++];
    if (char !== '\\') return char;
    const escaped = this.text[this.at++];
    if (escaped === undefined) throw new Error('missing ]');
    const named = NAMED_CLASSES[escaped.toLowerCase()];
    if (named !== undefined) return escaped < 'a' ? (other) => !named(other) : named;
    return CONTROLS[escaped] ?? escaped;
  }
}
