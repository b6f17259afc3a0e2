const translations = {
  en: {
    title: 'Home',
    cloudLink: 'Device identificator',
    streamsLink: 'Add to personal account',
    statsLink: 'Usage Statistics',
  },
  ru: {
    title: 'Главная',
    cloudLink: 'Идентификатор устройства',
    streamsLink: 'Добавить в личный кабинет',
    statsLink: 'Статистика использования',
  },
};

const elementIds = {
  title: 'page-title',
  cloudLink: 'cloud-link',
  streamsLink: 'streams-link',
  statsLink: 'stats-link',
};

// Called by the language buttons, each with its own language.
function changeLanguage(lang, button) {
  fillTexts(lang, translations, elementIds);
  document.querySelectorAll('.language-btn').forEach((other) => {
    other.classList.remove('active');
  });
  button.classList.add('active');
  storeLanguage(lang);
}

document.addEventListener('DOMContentLoaded', () => {
  const lang = storedLanguage();
  const button = document.querySelector(`.language-btn[onclick*="'${lang}'"]`);
  if (button) changeLanguage(lang, button);
});
