// The page of `krfilter serve`: every dialog is built from the catalogue the
// server reports, so a filter added to the library gets its dialog unasked.
'use strict';

const state = {
  catalogue: null,  // {filters, limits, phantom, opening}
  filter: null,     // the chosen catalogue entry
  image: null,      // the image filters run on
  result: null,     // the last result, made from `image`
};

const $ = (id) => document.getElementById(id);

async function api(path, options) {
  const response = await fetch(path, options);
  const type = response.headers.get('Content-Type') || '';
  const body = type.includes('json') ? await response.json() : null;
  if (!response.ok) {
    throw new Error((body && body.error) || `${response.status} ${response.statusText}`);
  }
  return body;
}

function say(id, text, kind) {
  const element = $(id);
  element.textContent = text;
  element.className = 'message' + (kind ? ' ' + kind : '');
}

// ---- filter list -------------------------------------------------------

function buildFilterList() {
  const nav = $('filters');
  nav.textContent = '';
  const families = new Map(state.catalogue.families.map((family) => [family, []]));
  for (const filter of state.catalogue.filters) {
    if (!families.has(filter.family)) families.set(filter.family, []);
    families.get(filter.family).push(filter);
  }
  for (const [family, filters] of families) {
    if (filters.length === 0) continue;
    const heading = document.createElement('h3');
    heading.textContent = family;
    const list = document.createElement('ul');
    for (const filter of filters) {
      const button = document.createElement('button');
      button.type = 'button';
      button.className = 'filter-entry' + (filter.built ? '' : ' not-built');
      button.dataset.index = filter.index;
      button.dataset.name = filter.name;
      button.textContent = filter.name;
      if (!filter.built) button.title = 'this build of the library does not run it (it answers -3)';
      button.addEventListener('click', () => chooseFilter(filter.index));
      const item = document.createElement('li');
      item.append(button);
      list.append(item);
    }
    nav.append(heading, list);
  }
  const built = state.catalogue.filters.filter((f) => f.built).length;
  $('catalogue-summary').textContent =
      `${state.catalogue.filters.length} filters in the catalogue, ${built} run by this build`;
}

// ---- the dialog --------------------------------------------------------

function nameElement(name) {
  const span = document.createElement('span');
  span.className = 'param-name';
  span.textContent = name;  // exactly as catalogued, blanks and all
  return span;
}

function checkRange(input, param, note) {
  const value = Number(input.value);
  const outside = input.value !== '' && (value < Number(param.min) || value > Number(param.max));
  note.textContent = outside ? ' outside the catalogue range; the library takes it as given' : '';
}

function chooseFilter(index) {
  const filter = state.catalogue.filters[index];
  state.filter = filter;
  for (const button of document.querySelectorAll('.filter-entry')) {
    button.classList.toggle('selected', Number(button.dataset.index) === index);
  }
  $('dialog-title').textContent = filter.name;
  const form = $('parameters');
  form.textContent = '';
  if (filter.params.length === 0) {
    const none = document.createElement('p');
    none.className = 'hint';
    none.textContent = 'No parameters.';
    form.append(none);
  }
  for (const param of filter.params) {
    const row = document.createElement('div');
    row.className = 'param';
    const input = document.createElement('input');
    input.type = 'number';
    input.id = `param-${param.index}`;
    input.dataset.index = param.index;
    input.dataset.name = param.name;
    input.min = param.min;
    input.max = param.max;
    input.step = param.type === 'int' ? '1' : 'any';
    input.value = param.default;
    input.dataset.default = param.default;
    const label = document.createElement('label');
    label.htmlFor = input.id;
    const type = document.createElement('span');
    type.className = 'param-type';
    type.textContent = ` ${param.type}, ${param.min} to ${param.max}, default ${param.default}`;
    label.append(nameElement(param.name), type);
    const note = document.createElement('span');
    note.className = 'outside';
    input.addEventListener('input', () => checkRange(input, param, note));
    row.append(label, input, note);
    form.append(row);
  }
  $('run').disabled = !filter.built;
  $('defaults').disabled = filter.params.length === 0;
  if (filter.built) say('result-code', '');
  else say('result-code', `This build of the library does not run ${filter.name} (it would answer -3).`, 'bad');
}

function restoreDefaults() {
  for (const input of $('parameters').querySelectorAll('input')) {
    input.value = input.dataset.default;
    input.dispatchEvent(new Event('input'));
  }
}

async function runFilter() {
  if (!state.filter || !state.image) return;
  const values = [...$('parameters').querySelectorAll('input')].map((input) => input.value);
  const request = {image: state.image.id, filter: state.filter.index, values};
  const white = $('white').value;
  if (white !== '' && Number(white) !== state.image.white) request.white = Number(white);
  $('run').disabled = true;
  say('result-code', `Running ${state.filter.name}\u2026`);
  try {
    const answer = await api('/api/run', {
      method: 'POST',
      headers: {'Content-Type': 'application/json'},
      body: JSON.stringify(request),
    });
    const seconds = (answer.milliseconds / 1000).toFixed(answer.milliseconds < 1000 ? 3 : 1);
    let text = `${answer.filter}: result ${answer.code}, ${answer.code_text} (${seconds} s; ${answer.parameters})`;
    if (answer.changed_samples !== undefined) {
      text += `; ${answer.changed_samples} samples changed, the largest change ${answer.largest_change}`;
    }
    say('result-code', text, answer.code === 0 ? 'good' : 'bad');
    $('result-code').dataset.code = answer.code;
    if (answer.result) {
      state.result = answer.result;
      refreshViews();
    }
  } catch (error) {
    say('result-code', error.message, 'bad');
    delete $('result-code').dataset.code;
  } finally {
    $('run').disabled = !state.filter.built;
  }
}

// ---- images ------------------------------------------------------------

function describeImage(image) {
  let text = `${image.name}: ${image.width} \u00d7 ${image.height}, ${image.bit_depth}-bit, white ${image.white}, ` +
             `samples ${image.lowest} to ${image.highest}`;
  if (image.notes) text += `, ${image.notes}`;
  return text;
}

function setImage(image) {
  state.image = image;
  state.result = null;
  $('image-info').textContent = describeImage(image);
  $('white').value = image.white;
  for (const id of ['window-range', 'level-range']) $(id).max = Math.max(image.white, 1) + (id === 'window-range' ? 1 : 0);
  // Files often record a white level far above their samples (a 10-bit
  // exposure in a 16-bit file): open on the samples' own range.
  fitWindow();
}

function fullWindow() {
  setWindow(state.image.white, state.image.white / 2);
}

function fitWindow() {
  const image = state.image;
  setWindow(Math.max(image.highest - image.lowest, 1), (image.highest + image.lowest) / 2);
}

function setWindow(window, level) {
  $('window').value = $('window-range').value = Math.round(window);
  $('level').value = $('level-range').value = Math.round(level);
  refreshViews();
}

function windowQuery() {
  return `window=${encodeURIComponent($('window').value)}&level=${encodeURIComponent($('level').value)}`;
}

// A picture request may meet a busy server (503); try again a few times.
function show(image, url, attempt = 0) {
  image.onerror = () => {
    if (attempt < 4 && image.dataset.url === url) setTimeout(() => show(image, url, attempt + 1), 400 * (attempt + 1));
  };
  image.dataset.url = url;
  image.src = attempt === 0 ? url : `${url}&attempt=${attempt}`;
}

function hide(image) {
  delete image.dataset.url;  // stops pending retries
  image.removeAttribute('src');
}

function refreshViews() {
  if (!state.image) return;
  show($('before'), `/api/images/${state.image.id}/preview.png?${windowQuery()}`);
  const result = state.result;
  $('after-empty').hidden = Boolean(result);
  $('result-actions').hidden = !result;
  if (!result) {
    hide($('after'));
    hide($('difference'));
    $('difference-note').textContent = '';
    return;
  }
  show($('after'), `/api/images/${result.id}/preview.png?${windowQuery()}`);
  if (result.colour) {
    hide($('difference'));
    $('difference-note').textContent = 'A colour rendering has no grey difference.';
  } else {
    show($('difference'), `/api/images/${result.id}/difference.png?against=${state.image.id}`);
    $('difference-note').textContent = 'Mid-grey: unchanged; brighter: raised; darker: lowered, ' +
                                       'the largest 0.5 % of the changes clipped.';
  }
  const link = $('download');
  link.href = `/api/images/${result.id}/file.png`;
  link.download = `${result.name}.png`;
  link.textContent = result.colour ? 'Download the result (8-bit RGB PNG)'
                                   : `Download the result (${result.bit_depth}-bit PNG)`;
}

async function upload(file) {
  const limits = state.catalogue.limits;
  if (file.size > limits.upload_bytes) {
    say('upload-message', `${file.name} is larger than ${limits.upload_bytes / 1048576} MiB.`, 'bad');
    return;
  }
  say('upload-message', `Reading ${file.name}\u2026`);
  try {
    const image = await api(`/api/images?name=${encodeURIComponent(file.name)}`, {
      method: 'POST',
      headers: {'Content-Type': 'application/octet-stream'},
      body: file,
    });
    setImage(image);
    say('upload-message', `${file.name} opened.`, 'good');
  } catch (error) {
    say('upload-message', error.message, 'bad');
  }
}

// ---- start -------------------------------------------------------------

function debounce(action, milliseconds) {
  let timer = null;
  return () => {
    clearTimeout(timer);
    timer = setTimeout(action, milliseconds);
  };
}

async function start() {
  try {
    state.catalogue = await api('/api/catalogue');
  } catch (error) {
    $('catalogue-summary').textContent = `The catalogue could not be read: ${error.message}`;
    return;
  }
  const limits = state.catalogue.limits;
  $('limits').textContent = `Uploads up to ${limits.upload_bytes / 1048576} MiB and ${limits.side} \u00d7 ` +
                            `${limits.side} samples; 8- or 16-bit grey.`;
  buildFilterList();
  setImage(state.catalogue.opening);

  $('run').addEventListener('click', runFilter);
  $('defaults').addEventListener('click', restoreDefaults);
  $('parameters').addEventListener('submit', (event) => {
    event.preventDefault();
    runFilter();
  });
  $('upload').addEventListener('change', (event) => {
    if (event.target.files.length > 0) upload(event.target.files[0]);
  });
  $('use-phantom').addEventListener('click', () => {
    setImage(state.catalogue.phantom);
    say('upload-message', '');
  });
  $('chain').addEventListener('click', () => {
    if (state.result && !state.result.colour) setImage(state.result);
  });
  const redraw = debounce(refreshViews, 150);
  for (const [range, number] of [['window-range', 'window'], ['level-range', 'level']]) {
    $(range).addEventListener('input', () => {
      $(number).value = $(range).value;
      redraw();
    });
    $(number).addEventListener('change', () => {
      $(range).value = $(number).value;
      redraw();
    });
  }
  $('window-auto').addEventListener('click', fitWindow);
  $('window-full').addEventListener('click', fullWindow);
  document.body.dataset.ready = 'true';
}

start();
