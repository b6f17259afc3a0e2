const translations = {
  en: {
    headerStats: 'Usage Statistics',
    refreshBtn: 'Refresh Statistics',
    autoRefresh: ' Auto-refresh (5s)',
    headerInfo: 'System Information',
    startTime: 'Start Time',
    timeUptime: 'Uptime',
    statStatus: 'Status',
    statUptime: 'Uptime',
    statRate: 'Transfer Rate',
    statTotal: 'Total Sent',
    statLast: 'Last Activity',
    headerStream: 'Stream %s',
    backButton: '← Back to Home',
  },
  ru: {
    headerStats: 'Статистика использования',
    refreshBtn: 'Обновить значения',
    autoRefresh: ' Авто-обновление (5с)',
    headerInfo: 'Данные системы',
    startTime: 'Начало работы',
    timeUptime: 'Продолжительность',
    statStatus: 'Статус',
    statUptime: 'Продолжительность',
    statRate: 'Скорость передачи',
    statTotal: 'Всего передано',
    statLast: 'Активность',
    headerStream: 'Поток %s',
    backButton: '← Назад',
  },
};

const elementIds = {
  headerStats: 'header-stats',
  refreshBtn: 'refreshBtn',
  autoRefresh: 'autoRefreshText',
  headerInfo: 'header-info',
  startTime: 'start-time',
  timeUptime: 'time-uptime',
  backButton: 'back-button',
};

// Texts that every stream card repeats.
const elementClasses = {
  statStatus: 'stat-status',
  statUptime: 'stat-uptime',
  statRate: 'stat-rate',
  statTotal: 'stat-total',
  statLast: 'stat-last',
};

const REFRESH_PERIOD = 5000; // ms

let refreshTimer = null;

const language = storedLanguage();

function updatePageContent(lang) {
  const texts = translations[lang];
  fillTexts(lang, translations, elementIds);
  for (const [key, name] of Object.entries(elementClasses)) {
    document.querySelectorAll(`.${name}`).forEach((element) => {
      element.textContent = texts[key];
    });
  }
  document.querySelectorAll('.header-stream').forEach((element) => {
    element.textContent = texts.headerStream.replace('%s', element.dataset.stream);
  });
}

// The figures come from a fresh copy of this very page. A failed refresh leaves
// the old figures standing.
async function refreshStats() {
  try {
    const response = await fetch('/stats');
    const html = await response.text();
    const page = new DOMParser().parseFromString(html, 'text/html');
    const fresh = page.querySelector('.stats-grid');
    document.querySelector('.stats-grid').innerHTML = fresh.innerHTML;
    updatePageContent(storedLanguage());
  } catch (error) {
    console.error('Error refreshing stats:', error);
  }
}

function toggleAutoRefresh(event) {
  clearInterval(refreshTimer);
  if (event.target.checked) refreshTimer = setInterval(refreshStats, REFRESH_PERIOD);
}

document.addEventListener('DOMContentLoaded', () => {
  const autoRefresh = document.getElementById('autoRefresh');
  // A browser may bring the tick back on reload, but no timer runs yet.
  autoRefresh.checked = false;
  autoRefresh.addEventListener('change', toggleAutoRefresh);
  document.getElementById('refreshBtn').addEventListener('click', refreshStats);
  updatePageContent(language);
});
