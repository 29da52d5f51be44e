// The sections about the whole: the machine in a line, what is wrong with it, what changed, and where all is from.

// ---- the machine in one line

function firmwareRecord(what) {
  return answer('inventory').data?.firmware?.find((record) => record.what === what) ?? {};
}

function joined(...texts) {
  return texts.filter((text) => text !== null && text !== undefined && text !== '').join(' ') || null;
}

function processorText(known) {
  const processors = answer('inventory').data?.processors ?? [];
  if (processors.length === 0) return known.processors === null ? null : plural(known.processors, 'processor');
  const model = joined(processors[0].version ?? processors[0].vendor);
  const threads = known.processors === null ? '' : ` (${plural(known.processors, 'thread')})`;
  return `${processors.length} × ${model ?? 'processor'}${threads}`;
}

function daemonText() {
  const status = answer('status').data;
  if (status === null || status === undefined) return null;
  const crash = status.last_crash === null ? '' : `; the last kept run ${status.last_crash}`;
  return (
    (status.running
      ? joined('runs as process', status.pid, status.started && 'since ' + status.started)
      : 'does not run') + crash
  );
}

function drawFacts(known) {
  const system = firmwareRecord('system'),
    bios = firmwareRecord('BIOS');
  const kernel = answer('inventory').data?.kernel?.[0]?.release;
  const title = known.host ?? joined(system.vendor, system.product) ?? 'A machine';
  document.title = shown('Report of ' + title);
  document.getElementById('host').textContent = shown(title);
  append(document.getElementById('facts'), [
    facts([
      ['Machine', joined(system.vendor, system.product, system.version)],
      ['BIOS', joined(bios.vendor, bios.version, bios.date)],
      ['Processors', processorText(known)],
      ['Memory', known.memory_kb === null ? null : sizeText(known.memory_kb * 1024)],
      ['System', known.system],
      ['Kernel', kernel],
      ['Up for', durationText(known.uptime_s)],
      ['Daemon', daemonText()],
      [
        'Modules',
        listed(
          known.modules.map((module) => module.path.split('/').pop()),
          6,
        ),
      ],
      ['As of', joined(known.time, known.time_zone)],
    ]),
  ]);
}

// ---- findings

const SEVERITIES = [
  {name: 'bad', mark: '✖', title: 'broken'},
  {name: 'warning', mark: '▲', title: 'not as it should be'},
  {name: 'unknown', mark: '?', title: 'cannot be told'},
  {name: 'note', mark: 'i', title: 'may surprise'},
  {name: 'ok', mark: '✓', title: 'sound'},
];

function findingItem(finding, severity) {
  return element(
    'li',
    {class: severity.name},
    element('span', {class: 'mark', 'aria-hidden': 'true'}, severity.mark),
    element(
      'div',
      null,
      element('strong', null, severity.name),
      ' ',
      element('code', null, finding.place),
      ' ',
      element('span', null, finding.finding),
      finding.todo && element('p', {class: 'todo'}, '→ ', finding.todo),
    ),
  );
}

function drawFindings() {
  const all = answer('doctor').data ?? [];
  const groups = SEVERITIES.map((severity) => [severity, all.filter((each) => each.severity === severity.name)]);
  const counts = groups
    .filter(([, found]) => found.length > 0)
    .map(([severity, found]) => `${found.length} ${severity.name}`);
  section('findings', reason('doctor'), counts.length > 0 && element('p', null, counts.join(', ')));
  for (const [severity, found] of groups) {
    if (found.length === 0) continue;
    const list = element(
      'ul',
      {class: 'findings'},
      found.map((finding) => findingItem(finding, severity)),
    );
    const isFolded = severity.name !== 'bad' && severity.name !== 'warning';
    section(
      'findings',
      isFolded
        ? element(
            'details',
            null,
            element('summary', null, `${found.length} ${severity.name}: ${severity.title}`),
            list,
          )
        : list,
    );
  }
}

// ---- what changed

const CHANGES = {added: '+', removed: '−', moved: '↦', changed: '≠'};

function drawChanges(known) {
  if (!known.against) return document.getElementById('changes').remove();
  const changes = answer('changes').data ?? [];
  section(
    'changes',
    reason('changes'),
    element(
      'p',
      null,
      plural(changes.length, 'change'),
      ' between ',
      element('code', null, known.against),
      ' and ',
      element('code', null, known.of ?? 'this machine'),
    ),
  );
  if (changes.length === 0) return;
  section(
    'changes',
    element(
      'ul',
      {class: 'changes'},
      changes.map((change) =>
        element(
          'li',
          {class: change.change},
          element('span', {class: 'mark', 'aria-hidden': 'true'}, CHANGES[change.change] ?? '·'),
          element(
            'div',
            {class: 'what'},
            element('strong', null, change.change),
            ` ${change.kind} `,
            element('code', null, change.where),
            change.slot !== null && change.slot !== change.where && ` in slot ${change.slot}`,
            change.name && ` – ${change.name}`,
            change.field && ` (${change.field})`,
          ),
          element('div', {class: 'before'}, element('small', null, 'before'), change.old ?? '–'),
          element('div', {class: 'after'}, element('small', null, 'after'), change.new ?? '–'),
        ),
      ),
    ),
  );
}

// ---- where this is from

function drawSources(known) {
  const bundle = known.bundle,
    missing = Array.isArray(bundle?.missing) ? bundle.missing : [];
  const ids = new Set([...document.querySelectorAll('script[data-answer]')].map((script) => script.dataset.answer));
  const warnings = [...ids]
    .filter((id) => id !== 'facts' && id !== 'perf' && !id.startsWith('trace-'))
    .flatMap((id) => answer(id).warnings.map((each) => joined(each.what, each.where, each.todo && `(${each.todo})`)));
  section(
    'sources',
    facts([
      ['Of', known.of ?? 'this machine'],
      ['Captured by', bundle?.tool],
      ['As root', bundle ? (bundle.as_root ? 'yes' : 'no') : null],
      ['Identities', bundle?.redacted ? 'replaced by tokens' : null],
      ['Packages', listed(known.packages)],
    ]),
    missing.length > 0 &&
      element(
        'details',
        null,
        element('summary', null, `${missing.length} not captured`),
        element(
          'ul',
          null,
          missing
            .slice(0, 200)
            .map((each) => element('li', null, element('code', null, each?.path), ` ${each?.reason}`)),
        ),
      ),
    known.modules.length > 0 &&
      element(
        'details',
        null,
        element('summary', null, plural(known.modules.length, 'module and library', 'modules and libraries')),
        element(
          'ul',
          null,
          known.modules
            .slice(0, 200)
            .map((each) =>
              element('li', null, element('code', null, each.path), ` ${each.size} bytes, build ${each.build_id}`),
            ),
        ),
      ),
    warnings.length > 0 &&
      element(
        'details',
        null,
        element('summary', null, plural(new Set(warnings).size, 'warning') + ' of the commands'),
        element(
          'ul',
          null,
          [...new Set(warnings)].map((warning) => element('li', null, warning)),
        ),
      ),
    element(
      'p',
      {class: 'from'},
      'The same in a terminal: ravctl doctor, slots, inventory, net list, perf, trace show',
      known.of && element('span', null, ', each with --sysroot ', element('code', null, known.of)),
      '.',
    ),
  );
}
