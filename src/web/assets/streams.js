/* global params, accountUrl -- the page defines both in front of this script */

const translations = {
  en: {
    pageTitle: 'Add Device to the Cloud',
    cloudCreds: 'Cloud',
    cloudLogin: 'Login',
    cloudPass: 'Password',
    deviceCreds: 'Device',
    deviceLogin: 'Login',
    devicePass: 'Password',
    headerVideo: 'Video',
    thId: 'ID',
    thUrl: 'Address',
    thStatus: 'Status',
    submitButton: 'Add selected',
    backButton: '← Back to Home',
    publishingStreams: 'Publishing Streams',
    progressStatus: 'Stream 0 of 0',
  },
  ru: {
    pageTitle: 'Добавление устройства в облако',
    cloudCreds: 'Облако',
    cloudLogin: 'Логин',
    cloudPass: 'Пароль',
    deviceCreds: 'Устройство',
    deviceLogin: 'Логин',
    devicePass: 'Пароль',
    headerVideo: 'Видео',
    thId: 'ID',
    thUrl: 'Адрес',
    thStatus: 'Состояние',
    submitButton: 'Добавить выбранные',
    backButton: '← Назад',
    publishingStreams: 'Добавляем на сервер',
    progressStatus: 'Поток 0 of 0',
  },
};

const messages = {
  en: {
    nothingTicked: 'Please select at least one stream',
    streamProgress: (number, total) => `Processing stream ${number} of ${total}`,
    pairProgress: (number, total) => `Processing stream group ${number} of ${total}`,
    streamName: (id) => `Stream ${id}`,
    pairName: (id1, id2) => `Streams ${id1}-${id2}`,
    allNames: 'All streams',
    streamAdded: 'Success',
    pairAdded: 'Success',
    allAdded: (count) => `Successfully added ${count} stream(s)`,
    someFailed: (count, total) => `Added ${count}/${total} streams. Some streams failed.`,
  },
  ru: {
    nothingTicked: 'Пожалуйста выберите один или несколько потоков',
    streamProgress: (number, total) => `Добавление потока ${number} из ${total}`,
    pairProgress: (number, total) => `Добавление группы ${number} из ${total}`,
    streamName: (id) => `Поток ${id}`,
    pairName: (id1, id2) => `Потоки ${id1}-${id2}`,
    allNames: 'Все потоки',
    streamAdded: 'Добавлен',
    pairAdded: 'Успешно',
    allAdded: (count) => `Успешно добавлено потоков: ${count}`,
    someFailed: (count, total) => `Добавлено ${count}/${total} потоков. Есть ошибки.`,
  },
};

const elementIds = {
  pageTitle: 'page-title',
  cloudCreds: 'cloud-creds',
  cloudLogin: 'cloud-login',
  cloudPass: 'cloud-pass',
  deviceCreds: 'device-creds',
  deviceLogin: 'device-login',
  devicePass: 'device-pass',
  headerVideo: 'header-video',
  thId: 'th-id',
  thUrl: 'th-url',
  thStatus: 'th-status',
  submitButton: 'submit-button',
  backButton: 'back-button',
  publishingStreams: 'publishingStreams',
  progressStatus: 'progressStatus',
};

const NOTIFICATION_TIME = 5000; // ms
const OVERLAY_TIME = 2000; // ms that the finished progress stays readable

let notificationTimer = null;
let publishing = false; // from the first request to the end of the overlay
let focusBefore = null; // the element that the overlay has taken the focus from

function currentMessages() {
  return messages[storedLanguage()];
}

function byId(id) {
  return document.getElementById(id);
}

// Check boxes

function enabledBoxes() {
  return [...document.querySelectorAll('.stream-checkbox:not(:disabled)')];
}

// A browser may bring the tick of a disabled box back on reload; it does not count.
function tickedBoxes() {
  return enabledBoxes().filter((box) => box.checked);
}

function applySelectAll() {
  const selectAll = byId('select-all');
  const boxes = enabledBoxes();
  selectAll.disabled = boxes.length === 0;
  if (selectAll.disabled) selectAll.checked = false;
  boxes.forEach((box) => {
    box.checked = selectAll.checked;
  });
}

function updateSelectAll() {
  const selectAll = byId('select-all');
  const boxes = enabledBoxes();
  selectAll.disabled = boxes.length === 0;
  selectAll.checked = boxes.length > 0 && boxes.every((box) => box.checked);
}

function resetSelectAll() {
  byId('select-all').disabled = enabledBoxes().length === 0;
  byId('select-all').checked = false;
}

// Notification and progress. What the account service answers is only ever
// shown as text, so it cannot bring markup into the page.

function showNotification(message, isSuccess) {
  const notification = byId('notification');
  notification.textContent = message;
  notification.className = `notification ${isSuccess ? 'success' : 'error'}`;
  notification.style.display = 'block';
  // The timer of an earlier notification must not hide this one.
  clearTimeout(notificationTimer);
  notificationTimer = setTimeout(() => {
    notification.style.display = 'none';
  }, NOTIFICATION_TIME);
}

// The overlay stops the mouse; without this the keyboard would still reach what lies under it.
function setInert(isInert) {
  byId('streamForm').inert = isInert;
  byId('back-button').inert = isInert;
}

function showOverlay() {
  publishing = true;
  focusBefore = document.activeElement;
  byId('progressDetails').textContent = '';
  byId('progressOverlay').style.display = 'flex';
  setInert(true);
  byId('progressOverlay').focus();
}

function hideOverlay() {
  publishing = false;
  byId('progressOverlay').style.display = 'none';
  setInert(false);
  focusBefore.focus();
}

// For browsers that do not know inert.
function keepFocus(event) {
  const overlay = byId('progressOverlay');
  if (publishing && !overlay.contains(event.target)) overlay.focus();
}

function rowName(row) {
  const texts = currentMessages();
  return row.isPair ? texts.pairName(...row.ids) : texts.streamName(row.ids[0]);
}

function showProgress(row, number, total) {
  const texts = currentMessages();
  const line = row.isPair ? texts.pairProgress : texts.streamProgress;
  byId('progressFill').style.width = `${(number / total) * 100}%`;
  byId('progressStatus').textContent = line(number, total);
}

// Scrolls with the run until something fails: the first failure then stays in view.
function showDetail(row, success, message) {
  const texts = currentMessages();
  const added = row.isPair ? texts.pairAdded : texts.streamAdded;
  const detail = document.createElement('div');
  detail.className = `progress-item ${success ? 'success' : 'error'}`;
  detail.textContent = `${rowName(row)}: ${success ? added : message || ''}`;
  const details = byId('progressDetails');
  details.appendChild(detail);
  const failure = details.querySelector('.error');
  details.scrollTop = failure ? failure.offsetTop - details.offsetTop : details.scrollHeight;
}

// Requests to the account service

function extractRealChannel(url) {
  // [^] takes a line feed too, should a URL hold one.
  const match = /:\d+([^]+)$|[^:/]\/([^]*?)$/.exec(url);
  if (!match) return '';
  return match[1] === undefined ? match[2] : match[1];
}

// The device fields are missing when the device asks for no login.
function fieldValue(id) {
  const field = byId(id);
  return field ? field.value : '';
}

// Read once: what is typed during a run must not part its streams.
function readCredentials() {
  return {
    login: fieldValue('cloud_username'),
    password: fieldValue('cloud_password'),
    deviceLogin: fieldValue('device_username'),
    devicePassword: fieldValue('device_password'),
  };
}

function buildChannel(credentials, streamId, url) {
  return {
    chanel: streamId,
    real_chanel: extractRealChannel(url),
    cloud_id: `${params.cloud_id}/${streamId}`,
    camera_login: credentials.deviceLogin,
    camera_password: credentials.devicePassword,
    cloud_server: params.cloud_server,
    cloud_port: params.cloud_port,
    cloud_url: `rtsp://${params.cloud_server}:${params.cloud_port}/${params.cloud_id}/${streamId}`,
    status: '1',
  };
}

// Resolves to the service's answer. A failed request or an answer that is not
// JSON becomes an answer of status 0.
async function postToAccount(fields) {
  try {
    const response = await fetch(accountUrl, {
      method: 'POST',
      headers: { 'Content-Type': 'application/x-www-form-urlencoded' },
      body: new URLSearchParams(fields),
    });
    return await response.json();
  } catch (error) {
    return { status: 0, message: error.message };
  }
}

function publishStream(credentials, streamId, url) {
  return postToAccount({
    action: 'add',
    login: credentials.login,
    password: credentials.password,
    data: JSON.stringify(buildChannel(credentials, streamId, url)),
  });
}

function publishPair(credentials, ids, urls) {
  const channels = ids.map((id, i) => buildChannel(credentials, id, urls[i]));
  return postToAccount({
    action: 'addcamera',
    login: credentials.login,
    password: credentials.password,
    login_camera: credentials.deviceLogin,
    password_camera: credentials.devicePassword,
    data: JSON.stringify({ chanels: channels }),
  });
}

// Publishing

// innerHTML writes "&" as "&amp;"; a text area reads it back and runs nothing.
function splitUrls(cell) {
  return cell.innerHTML.split('<br>').map((part) => {
    const decoder = document.createElement('textarea');
    decoder.innerHTML = part;
    return decoder.textContent.trim();
  });
}

function readRow(box) {
  const cells = box.closest('tr');
  const ids = cells.querySelector('.stream-id').textContent.split('-');
  const urlCell = cells.querySelector('.stream-url');
  // The last of an odd number of streams stands alone, also among pairs.
  if (params.group_streams !== 'true' || ids.length === 1) {
    return { isPair: false, ids: [box.value], urls: [urlCell.textContent] };
  }
  return { isPair: true, ids, urls: splitUrls(urlCell) };
}

function nameBoxes() {
  byId('select-all').setAttribute('aria-label', currentMessages().allNames);
  document.querySelectorAll('.stream-checkbox').forEach((box) => {
    box.setAttribute('aria-label', rowName(readRow(box)));
  });
}

// Resolves to whether the row was added.
async function publishRow(credentials, row) {
  try {
    const answer = row.isPair
      ? await publishPair(credentials, row.ids, row.urls)
      : await publishStream(credentials, row.ids[0], row.urls[0]);
    const success = answer.status === 1;
    showDetail(row, success, answer.message);
    return success;
  } catch (error) {
    showDetail(row, false, error.message);
    return false;
  }
}

// One result per stream, in order: both streams of a pair share its outcome. What was added is
// unticked, so that a second run takes up what failed.
async function publishRows(credentials, boxes) {
  const results = [];
  for (let i = 0; i < boxes.length; i++) {
    const row = readRow(boxes[i]);
    showProgress(row, i + 1, boxes.length);
    const success = await publishRow(credentials, row);
    if (success) boxes[i].checked = false;
    row.ids.forEach(() => results.push(success));
  }
  updateSelectAll();
  return results;
}

function showSummary(results) {
  const texts = currentMessages();
  const successCount = results.filter((success) => success).length;
  if (successCount === results.length) {
    showNotification(texts.allAdded(successCount), true);
  } else {
    showNotification(texts.someFailed(successCount, results.length), false);
  }
}

async function submitForm(event) {
  event.preventDefault();
  if (publishing) return;
  const boxes = tickedBoxes();
  if (boxes.length === 0) {
    showNotification(currentMessages().nothingTicked, false);
    return;
  }
  showOverlay();
  const results = await publishRows(readCredentials(), boxes);
  setTimeout(hideOverlay, OVERLAY_TIME);
  showSummary(results);
}

// Before anything that could fail: the browser's own submit would send the cloud's password.
byId('streamForm').addEventListener('submit', submitForm);
byId('select-all').addEventListener('change', applySelectAll);
document.querySelectorAll('.stream-checkbox').forEach((box) => {
  box.addEventListener('change', updateSelectAll);
});
document.addEventListener('focusin', keepFocus);

document.addEventListener('DOMContentLoaded', () => {
  fillTexts(storedLanguage(), translations, elementIds);
  nameBoxes();
});

window.addEventListener('load', resetSelectAll);
