// The pages of `ravctl report` in a real browser: see browser.sh, which starts this.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {readFileSync, statSync} from 'node:fs';
import {createServer} from 'node:http';
import {createRequire} from 'node:module';
import {after, test} from 'node:test';

const [ravctl, machines, directory] = process.argv.slice(2);
const require = createRequire(directory + '.tools/');
const {chromium} = require('playwright-core');
const axe = readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');

const PATIENCE = 200000; // milliseconds, on a machine that has much else to do
const asked = []; // what reached the trap
const trap = createServer((request, response) => {
  asked.push(request.url);
  response.end();
});
await new Promise((resolve) => trap.listen(0, '127.0.0.1', resolve));
execFileSync(machines, [directory, `http://127.0.0.1:${trap.address().port}/trap`]);
const pageFile = (name) => `${directory}/${name}.html`;
const makePage = (name, ...words) => execFileSync(ravctl, ['report', ...words, '-o', pageFile(name)], {stdio: 'pipe'});
for (const name of ['small', 'large', 'hostile']) makePage(name, `${directory}/${name}`);
makePage('server', `${directory}/server`, '--against', `${directory}/before`);
makePage('live');

const browser = await chromium.launch({executablePath: '/usr/bin/chromium', args: ['--no-sandbox']});
after(() => Promise.all([browser.close(), new Promise((resolve) => trap.close(resolve))]));

// The page once all of it is drawn, and what it said and asked for until then.
async function open(name, options = {}) {
  const context = await browser.newContext({viewport: {width: 1200, height: 900}, ...options});
  context.setDefaultTimeout(PATIENCE);
  const page = await context.newPage();
  page.said = [];
  page.requests = [];
  page.on('console', (message) => page.said.push(message.text()));
  page.on('pageerror', (error) => page.said.push(String(error)));
  page.on('dialog', (dialog) => page.said.push(dialog.message()) && dialog.dismiss());
  page.on('request', (request) => page.requests.push(request.url()));
  await page.goto('file://' + pageFile(name));
  await page.waitForSelector('html[data-drawn=all]');
  return page;
}

// As the file has it. Before the entries of a trace stands a line with the spans of its files.
function answerOf(name, id) {
  const pieces = readFileSync(pageFile(name), 'utf8').matchAll(
    new RegExp(`<script type="application/json" data-answer="${id}">([^<]*)</script>`, 'g'),
  );
  return JSON.parse(
    [...pieces]
      .map(([, json]) => json)
      .join('')
      .replace(/^\[.*\n/, ''),
  ).data;
}
const texts = (page, selector) => page.locator(selector).allTextContents();
const attributes = (page, selector, name) =>
  page.locator(selector).evaluateAll((all, name) => all.map((each) => each.getAttribute(name)), name);
// Once the filter is through.
async function state(page) {
  await page.waitForFunction(() => !document.getElementById('trace-state').textContent.startsWith('Looking'));
  return page.textContent('#trace-state');
}
const widerThan = (page) =>
  page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);

test('what a stranger wrote neither runs nor asks nor breaks the page', async () => {
  const page = await open('hostile', {viewport: {width: 400, height: 800}});
  for (const details of await page.locator('details').all()) await details.evaluate((each) => (each.open = true));
  await page.fill('#trace-search', 'Long');
  await page.click('.entry >> nth=0');
  await page.hover('.cardname >> nth=0');
  await page.waitForTimeout(200);
  assert.deepEqual([page.said, asked], [[], []]);
  assert.deepEqual(page.requests, ['file://' + pageFile('hostile')]);
  const found = await page.evaluate(() => ({
    title: document.title,
    foreign: document.querySelectorAll('img, iframe, link, object').length,
    scripts: document.querySelectorAll('script:not([type])').length,
    attributes: [...document.querySelectorAll('*')]
      .flatMap((each) => each.getAttributeNames())
      .filter((name) => name.startsWith('on')),
    broken: [...document.querySelectorAll('.alarm')]
      .map((each) => each.textContent)
      .filter((text) => text.includes('cannot be shown')),
    turned: /[\u202a-\u202e\u2066-\u2069]/.test(document.body.innerText),
  }));
  assert.match(found.title, /^Report of <\/script>/);
  assert.deepEqual(
    {...found, title: ''},
    {title: '', foreign: 0, scripts: 1, attributes: [], broken: [], turned: false},
  );
  assert.match(await page.textContent('.whole'), /…? \(1000\d\d\d? characters\)/);
  assert.match((await texts(page, '.slot h3'))[0], /\\u202e/);
  assert.equal(await widerThan(page), 0);
});

test('the policy allows nothing but the parts of the page', async () => {
  const page = await open('small');
  await page.evaluate(() =>
    document.body.insertAdjacentHTML(
      'beforeend',
      '<p style="color:red" onclick="document.title=1">x</p><img src="http://127.0.0.1/">',
    ),
  );
  await page.evaluate(() =>
    document.body.append(Object.assign(document.createElement('script'), {textContent: 'document.title = "ran"'})),
  );
  await page.waitForTimeout(100);
  assert.equal(page.said.filter((text) => text.includes('Content Security Policy')).length, 4, page.said.join('\n'));
  assert.notEqual(await page.title(), 'ran');
  const whole = statSync(pageFile('small')).size,
    data = await page.evaluate(() =>
      [...document.querySelectorAll('script[type]')].reduce((sum, each) => sum + each.textContent.length, 0),
    );
  assert.ok(whole - data < 150000, `${whole - data} bytes beside the data`);
});

test('the pictures show what the answers say', async () => {
  const page = await open('server');
  assert.deepEqual(page.said, []);
  assert.deepEqual(
    (await attributes(page, '.slot', 'data-slot')).map(Number),
    answerOf('server', 'slots').map((slot) => slot.number),
  );
  assert.deepEqual(await attributes(page, '.slot', 'data-state'), ['used', 'conflict', 'free', 'conflict', 'conflict']);
  assert.deepEqual(
    [await page.locator('.slot rect.port').count(), await page.locator('.slot rect.drive').count()],
    [1, 1],
  );
  // The volume on the drive of slot 6 is full to 95 of 100 parts.
  const widths = await page
    .locator('.slot rect.drive + rect.filled')
    .evaluateAll((all) => all.map((bar) => Number(bar.getAttribute('width'))));
  assert.deepEqual(widths, [(22 * answerOf('server', 'inventory').volumes[0].used_percent) / 100]);
  assert.deepEqual([...new Set(await attributes(page, '#drives .bar', 'data-percent'))], ['95']);
  assert.match((await texts(page, '#drives')).join(), /95 % – nearly full/);
  assert.match((await texts(page, '.slot'))[0], /Slot 3.*in use.*PCIe.*eth7.*igb.*02:00:00:00:00:01.*SMBIOS type 9/s);
  assert.deepEqual(await attributes(page, '.dimm', 'data-state'), ['used', 'used', 'free']);
  assert.equal(await page.locator('.changes > li').count(), answerOf('server', 'changes').length);
  assert.match((await texts(page, '.changes')).join(), /added adapter.*slot 4.*changed firmware.*2\.0\.1.*2\.1\.0/s);
  const findings = answerOf('server', 'doctor');
  assert.equal(await page.locator('.findings > li').count(), findings.length);
  assert.equal(await page.locator('.findings > li').first().getAttribute('class'), 'bad');
  const runs = [answerOf('server', 'trace-0'), answerOf('server', 'trace-1')];
  for (const [number, entries] of runs.entries()) {
    const isError = (entry) => /ERROR|FAILED/.test(entry.text),
      lanes = `.run[data-run="${number}"] .lanerow`;
    const sums = await page
      .locator(lanes)
      .evaluateAll((rows) => rows.map((row) => [Number(row.dataset.entries), Number(row.dataset.errors)]));
    assert.deepEqual(sums[0], [entries.length, entries.filter(isError).length]);
    assert.equal(
      sums.slice(1).reduce((sum, [count]) => sum + count, 0),
      entries.length,
    );
  }
  assert.deepEqual(
    [await page.locator('[data-run="0"] [data-gap]').count(), await page.locator('[data-run="1"] [data-gap]').count()],
    [1, 0],
  );
  assert.equal(
    await page.locator('[data-run="0"] .gap').count(),
    await page.locator('[data-run="0"] .lanerow').count(),
  );
  assert.match((await texts(page, '.run h3'))[1], /kept run 1.*SEGV/);
});

test('a live machine shows its volumes, links and load', async () => {
  const page = await open('live');
  assert.deepEqual(page.said, []);
  const told = answerOf('live', 'inventory')
    .volumes.map((volume) => volume.used_percent)
    .filter((used) => used !== null);
  const bars = await page
    .locator('.volume .bar')
    .evaluateAll((all) => all.map((bar) => [bar.dataset.percent, bar.querySelector('.filled').getAttribute('width')]));
  assert.deepEqual(bars.map(([percent]) => Number(percent)).sort(), told.sort());
  assert.ok(bars.every(([percent, width]) => percent === width));
  const links = answerOf('live', 'net');
  assert.deepEqual(
    await attributes(page, '.link', 'data-link'),
    links.map((link) => link.name),
  );
  assert.deepEqual(
    await attributes(page, '.link', 'data-state'),
    links.map((link) => link.state),
  );
  assert.ok((await attributes(page, '.plot', 'data-samples')).every((samples) => samples === '6'));
});

test('filter, search and keyboard choose among 100,000 entries', async () => {
  const page = await open('large');
  const entries = answerOf('large', 'trace-0');
  const counted = (condition) => `${entries.filter(condition).length.toLocaleString('en')} of 100,000 entries`;
  const look = async (text, isPattern, condition) => {
    await page.setChecked('#trace-pattern', isPattern);
    await page.fill('#trace-search', text);
    assert.equal(await state(page), counted(condition), text);
  };
  assert.equal(
    await state(page),
    counted(() => true),
  );
  assert.ok((await page.locator('.entry').count()) < 100);
  await look('SAVED key 9', false, (entry) => entry.text.includes('saved key 9'));
  await look('key \\d*(17|38)\\b.*failed|^libnetif .*[5-9]{2}$', true, (entry) =>
    /key \d*(17|38)\b.*failed|^libnetif .*[5-9]{2}$/i.test(entry.text),
  );
  await look('(([a-z]+)+ ?)*=|(.*)*(.*)*#', true, () => false);
  await page.fill('#trace-search', '(a');
  assert.match(await state(page), /^No regular expression: missing \)/);
  await page.click('#trace-clear');
  await page.selectOption('#trace-level', {label: 'errors'});
  assert.equal(
    await state(page),
    counted((entry) => /ERROR|FAILED/.test(entry.text)),
  );
  await page.click('#trace-clear');
  await page.click('button.lane:has-text("CPerfMon")');
  assert.equal(
    await state(page),
    counted((entry) => entry.source === 'CPerfMon'),
  );
  const box = await page.locator('.chart').first().boundingBox();
  await page.mouse.move(box.x + box.width / 4, box.y + 5);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width / 2, box.y + 5);
  await page.mouse.up();
  const chosen = /^([\d,]+) of 100,000 entries, (.*) to (.*)$/.exec(await state(page));
  const inside = entries.filter(
    (entry) => entry.source === 'CPerfMon' && entry.time >= chosen[2] && entry.time <= chosen[3],
  ).length;
  assert.ok(Math.abs(Number(chosen[1].replace(',', '')) - inside) <= 1 && inside > 4000, chosen[0]);
  await page.click('#trace-clear');
  await page.locator('#trace-from').focus();
  for (let press = 0; press < 24; ++press) await page.keyboard.press('ArrowRight');
  assert.match(await state(page), /^90,00\d of /);
  await page.click('#trace-clear');
  await page.locator('.entries').focus();
  for (const [key, text] of [
    ['End', entries.at(-1).text],
    ['Home', entries[0].text],
    ['ArrowDown', entries[1].text],
  ]) {
    await page.keyboard.press(key);
    assert.ok((await page.textContent('.whole')).endsWith(text), key);
    assert.equal(await page.locator('[aria-selected=true]').count(), 1);
  }
});

test('patterns match what those of the browser match', async () => {
  const page = await open('small');
  const different = await page.evaluate(() => {
    const patterns = [
      'a|bc',
      '^a.*c$',
      '(ab)+c?',
      'x*',
      '[^a-c]',
      '[a-c\\d]{2,3}',
      '\\bab\\b',
      '\\Bb',
      'a{0}b',
      '(a|b|)*c',
      '\\w+\\s\\W',
      '^$',
      '.+?b',
      '[\\]x-]',
      'é+',
      'A[B-C]',
      '\\.',
      '(?:a(b(c)))',
    ];
    const subjects = ['', 'a', 'abc', 'ABABc', 'x-]', 'ab ab', 'b.', '12c', 'a\nc', 'éé', 'cab !', 'abab', '__'];
    return patterns.flatMap((pattern) =>
      subjects
        .filter((subject) => new Pattern(pattern).test(subject) !== new RegExp(pattern, 'i').test(subject))
        .map((subject) => pattern + ' on ' + subject),
    );
  });
  assert.deepEqual(different, []);
});

test('times, for the reader alone', async (context) => {
  const page = await open('large');
  const first = await page.evaluate(() => performance.getEntriesByName('first-contentful-paint')[0]?.startTime);
  const drawn = await page.evaluate(() => performance.getEntriesByName('drawn')[0]?.startTime);
  const times = await page.evaluate(async () => {
    const found = {},
      box = document.getElementById('trace-search');
    for (const text of ['beat 99', 'saved key', 'nothing', '']) {
      const begin = performance.now();
      box.value = text;
      box.dispatchEvent(new Event('input'));
      while (document.getElementById('trace-state').textContent.startsWith('Looking'))
        await new Promise((resolve) => setTimeout(resolve));
      found[text] = Math.round(performance.now() - begin);
    }
    return found;
  });
  context.diagnostic(
    `100,000 entries: first frame ${Math.round(first)} ms, all drawn ${Math.round(drawn)} ms, ` +
      `filters ${JSON.stringify(times)} ms`,
  );
});

test('no page has a fault that axe finds, nor is wider than the screen', async () => {
  const rows = [
    ['small', 400, 'light'],
    ['small', 2000, 'dark'],
    ['server', 400, 'light'],
    ['server', 2000, 'dark'],
    ['large', 400, 'light'],
    ['large', 2000, 'dark'],
    ['hostile', 400, 'dark'],
    ['live', 2000, 'light'],
  ];
  for (const [name, width, colorScheme] of rows) {
    const page = await open(name, {bypassCSP: true, colorScheme, viewport: {width, height: 1000}});
    await page.screenshot({path: `${directory}/${name}-${width}-${colorScheme}.png`, fullPage: true});
    assert.equal(await widerThan(page), 0, `${name} at ${width}`);
    await page.locator('details').evaluateAll((all) => all.forEach((each) => (each.open = true)));
    await page.evaluate(axe);
    const violations = await page.evaluate(async () =>
      (await globalThis.axe.run({resultTypes: ['violations']})).violations.map(
        (each) =>
          `${each.id}: ${each.nodes
            .slice(0, 3)
            .map((node) => node.html.slice(0, 200) + node.failureSummary)
            .join(' ')}`,
      ),
    );
    assert.deepEqual(violations, [], `${name} ${colorScheme}`);
    await page.context().close();
  }
});

test('on paper everything is unfolded and nothing is left to press', async () => {
  const page = await open('server');
  await page.evaluate(() => dispatchEvent(new Event('beforeprint')));
  await page.emulateMedia({media: 'print'});
  assert.equal(await page.locator('details:not([open])').count(), 0);
  assert.equal(await page.locator('.controls').isVisible(), false);
  await page.pdf({path: `${directory}/server.pdf`, printBackground: true});
  await page.evaluate(() => dispatchEvent(new Event('afterprint')));
  assert.equal(await page.locator('details[open]').count(), 0);
});
