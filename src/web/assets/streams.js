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
    streamDetail: (id) => `Stream ${id}: `,
    pairDetail: (id1, id2) => `Streams ${id1}-${id2}: `,
    streamAdded: 'Success',
    pairAdded: 'Success',
    allAdded: (count) => `Successfully added ${count} stream(s)`,
    someFailed: (count, total) => `Added ${count}/${total} streams. Some streams failed.`,
  },
  ru: {
    nothingTicked: 'Пожалуйста выберите один или несколько потоков',
    streamProgress: (number, total) => `Добавление потока ${number} из ${total}`,
    pairProgress: (number, total) => `Добавление группы ${number} из ${total}`,
    streamDetail: (id) => `Поток ${id}: `,
    pairDetail: (id1, id2) => `Потоки ${id1}-${id2}: `,
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

// Language

function storedLanguage() {
  return localStorage.getItem('preferredLanguage') || 'ru';
}

function updatePageContent(lang) {
  for (const [key, id] of Object.entries(elementIds)) {
    const element = document.getElementById(id);
    if (element) element.textContent = translations[lang][key];
  }
}

function currentMessages() {
  return storedLanguage() === 'ru' ? messages.ru : messages.en;
}

// Check boxes

function enabledBoxes() {
  return [...document.querySelectorAll('.stream-checkbox:not(:disabled)')];
}

function applySelectAll() {
  const selectAll = document.getElementById('select-all');
  const boxes = enabledBoxes();
  selectAll.disabled = boxes.length === 0;
  if (selectAll.disabled) selectAll.checked = false;
  boxes.forEach((box) => {
    box.checked = selectAll.checked;
  });
}

function updateSelectAll() {
  const selectAll = document.getElementById('select-all');
  const boxes = enabledBoxes();
  selectAll.disabled = boxes.length === 0;
  selectAll.checked = boxes.length > 0 && boxes.every((box) => box.checked);
}

function resetSelectAll() {
  const selectAll = document.getElementById('select-all');
  selectAll.disabled = enabledBoxes().length === 0;
  selectAll.checked = false;
}

// Notification and progress. What the account service answers is only ever
// shown as text, so it cannot bring markup into the page.

function showNotification(message, isSuccess) {
  const notification = document.getElementById('notification');
  notification.textContent = message;
  notification.className = `notification ${isSuccess ? 'success' : 'error'}`;
  notification.style.display = 'block';
  // The timer of an earlier notification must not hide this one.
  clearTimeout(notificationTimer);
  notificationTimer = setTimeout(() => {
    notification.style.display = 'none';
  }, NOTIFICATION_TIME);
}

function showOverlay() {
  document.getElementById('progressDetails').replaceChildren();
  document.getElementById('progressOverlay').style.display = 'flex';
  // The overlay stops the mouse only; Enter would start a second run.
  document.getElementById('submit-button').disabled = true;
}

function hideOverlay() {
  document.getElementById('progressOverlay').style.display = 'none';
  document.getElementById('submit-button').disabled = false;
}

function showProgress(row, number, total) {
  const texts = currentMessages();
  const line = row.isPair ? texts.pairProgress : texts.streamProgress;
  document.getElementById('progressFill').style.width = `${(number / total) * 100}%`;
  document.getElementById('progressStatus').textContent = line(number, total);
}

function showDetail(row, success, message) {
  const texts = currentMessages();
  const title = row.isPair ? texts.pairDetail(...row.ids) : texts.streamDetail(row.ids[0]);
  const added = row.isPair ? texts.pairAdded : texts.streamAdded;
  const detail = document.createElement('div');
  detail.className = `progress-item ${success ? 'success' : 'error'}`;
  detail.textContent = title + (success ? added : (message ?? ''));
  const details = document.getElementById('progressDetails');
  details.append(detail);
  details.scrollTop = details.scrollHeight;
}

// Requests to the account service

function extractRealChannel(url) {
  // The s flag only matters to a URL with a line feed in it.
  const match = /:\d+(.+)$|[^:/]\/(.*?)$/s.exec(url);
  if (!match) return '';
  return match[1] === undefined ? match[2] : match[1];
}

// The device fields are missing when the device asks for no login.
function fieldValue(id) {
  const field = document.getElementById(id);
  return field ? field.value : '';
}

function buildChannel(streamId, url) {
  return {
    chanel: streamId,
    real_chanel: extractRealChannel(url),
    cloud_id: `${params.cloud_id}/${streamId}`,
    camera_login: fieldValue('device_username'),
    camera_password: fieldValue('device_password'),
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

function publishStream(login, password, streamId, url) {
  return postToAccount({
    action: 'add',
    login,
    password,
    data: JSON.stringify(buildChannel(streamId, url)),
  });
}

function publishPair(login, password, ids, urls) {
  const channels = [buildChannel(ids[0], urls[0]), buildChannel(ids[1], urls[1])];
  return postToAccount({
    action: 'addcamera',
    login,
    password,
    login_camera: fieldValue('device_username'),
    password_camera: fieldValue('device_password'),
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

// Resolves to whether the row was added.
async function publishRow(login, password, row) {
  try {
    const answer = row.isPair
      ? await publishPair(login, password, row.ids, row.urls)
      : await publishStream(login, password, row.ids[0], row.urls[0]);
    const success = answer.status === 1;
    showDetail(row, success, answer.message);
    return success;
  } catch (error) {
    showDetail(row, false, error.message);
    return false;
  }
}

// One result per stream, in order: both streams of a pair share its outcome.
async function publishRows(login, password, boxes) {
  const results = [];
  for (let i = 0; i < boxes.length; i++) {
    const row = readRow(boxes[i]);
    showProgress(row, i + 1, boxes.length);
    const success = await publishRow(login, password, row);
    row.ids.forEach(() => results.push(success));
  }
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
  const login = fieldValue('cloud_username');
  const password = fieldValue('cloud_password');
  const boxes = [...document.querySelectorAll('.stream-checkbox:checked')];
  if (boxes.length === 0) {
    showNotification(currentMessages().nothingTicked, false);
    return;
  }
  showOverlay();
  const results = await publishRows(login, password, boxes);
  setTimeout(hideOverlay, OVERLAY_TIME);
  showSummary(results);
}

document.addEventListener('DOMContentLoaded', () => {
  updatePageContent(storedLanguage());
  document.getElementById('select-all').addEventListener('change', applySelectAll);
  document.querySelectorAll('.stream-checkbox').forEach((box) => {
    box.addEventListener('change', updateSelectAll);
  });
  document.getElementById('streamForm').addEventListener('submit', submitForm);
});

window.addEventListener('load', resetSelectAll);
